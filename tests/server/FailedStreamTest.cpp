#include "server/Worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

/// A handler that goes on with a stream of the pipe after its failure. Standard streams throw on every later use of a
/// bad stream, and swallow what a copy by "<<" of a stream buffer meets.
class FailedStream : public Worker {
  protected:
    void SetUp() override {
        server.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 50);
        server.server.setOption(QvtpServer::IDLE_TIMEOUT, 60000);
    }

    /// Sends a request whose body stops after its first chunk; what the server writes before it hangs up.
    std::string postThatStalls() {
        server.start();
        RawClient client(server.name);
        client.write("POST /stall QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n");
        return client.readToEnd();
    }

    /// Asks for a download and goes away at once.
    void postAndLeave() {
        server.start();
        RawClient client(server.name);
        client.write("POST /download QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
        client.read(1);
        client.close();
    }

    /// The worker has ended: a later connection finds it so.
    void expectReaped() {
        EXPECT_TRUE(eventually([&] {
            reap();
            return log.contains("DEBUG Deleting idle worker " + full() + ".");
        }));
    }

    std::vector<std::string> errors() const {
        std::vector<std::string> lines;
        for (const std::string& message : log.messages()) {
            if (message.rfind("ERROR ", 0) == 0) lines.push_back(message);
        }
        return lines;
    }

    static void answer(QvtpServerResponse& response, int status = 200) {
        response.setStatusCode(status);
        response.setBody("hello", 5);
        response.send();
    }

    LogCapture log;
};

TEST_F(FailedStream, EndsTheConnectionWhenTheHandlerAnswersAfterATimeout) {
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        if (request.getResource() != "/stall") return answer(response);
        EXPECT_EQ(thrownBy([&] { bodyOf(request); }), "TimeoutException: QvPipe read timeout.");
        answer(response, 408);
    };
    EXPECT_THAT(postThatStalls(), ::testing::StartsWith("QVTP/1.0 408"));
    expectReaped();
}

TEST_F(FailedStream, EndsTheConnectionWhenACopyHasSwallowedATimeout) {
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        std::ostringstream copy;
        if (request.getResource() == "/stall") copy << request.getBodyStream()->rdbuf();
        answer(response);
    };
    EXPECT_THAT(postThatStalls(), ::testing::StartsWith("QVTP/1.0 200"));
    expectReaped();
}

TEST_F(FailedStream, IsLoggedWhenTheHandlerReadsOn) {
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        if (request.getResource() != "/stall") return answer(response);
        std::istream& body = *request.getBodyStream();
        EXPECT_EQ(thrownBy([&] { body.get(), body.get(), body.get(); }), "TimeoutException: QvPipe read timeout.");
        body.get();
    };
    EXPECT_EQ(postThatStalls(), "");
    EXPECT_THAT(errors(),
                ElementsAre("ERROR QvPipeException - " + full() + ". A stream of the QvPipe was used after it failed.",
                            "ERROR Could not process the /stall request. The pipe will be closed."));
    expectReaped();
}

TEST_F(FailedStream, EndsTheWorkerWhenADownloadIsAborted) {
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        if (request.getResource() != "/download") return answer(response);
        std::istringstream file(std::string(4 << 20, 'x'));
        response.setStatusCode(200);
        *response.getBodyStream() << file.rdbuf();
        response.send();
    };
    postAndLeave();
    ASSERT_TRUE(eventuallyLogs(log, "ERROR Could not process the /download request. The pipe will be closed."));
    EXPECT_THAT(errors(),
                ElementsAre("ERROR QvPipeException - " + full() + ". A stream of the QvPipe was used after it failed.",
                            "ERROR Could not process the /download request. The pipe will be closed."));
    expectReaped();
}

TEST_F(FailedStream, EndsTheWorkerWhenTheHandlerSendsAllTheSame) {
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        if (request.getResource() != "/download") return answer(response);
        response.setStatusCode(200);
        const std::string big(4 << 20, 'x');
        EXPECT_EQ(thrownBy([&] { *response.getBodyStream() << big; }),
                  "BrokenPipeException: Pipe was closed at other end.");
        response.send();
    };
    postAndLeave();
    expectReaped();
}

TEST_F(FailedStream, OfTheHandlersOwnIsNotTakenForThePipes) {
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        if (request.getResource() != "/stall") return answer(response);
        std::ifstream missing("no such file");
        missing.exceptions(std::ios_base::failbit);
    };
    server.start();
    RawClient client(server.name);
    client.write("POST /stall QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Begin processing of POST request (" + full() + ")."));
    client.close();
    server.stop();
    EXPECT_TRUE(log.contains("INFO ************* Worker thread not deleted: Worker-1"));
    EXPECT_THAT(errors(), ::testing::IsEmpty());
}

}  // namespace
}  // namespace qvtp_test
