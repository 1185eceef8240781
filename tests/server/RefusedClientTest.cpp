#include "server/Worker.h"

#include <gtest/gtest.h>

#include <string>

namespace qvtp_test {
namespace {

/// What becomes of a client that exceeds a limit, besides its answer.
class RefusedClient : public Worker {
  protected:
    ~RefusedClient() override { server.stop(); }  // before what its handler uses

    bool hasLoggedErrors() const {
        for (const std::string& message : log.messages()) {
            if (message.rfind("ERROR ", 0) == 0) return true;
        }
        return false;
    }
    std::string limitLine(const std::string& what) const {
        return "WARN Limit exceeded (" + full() + "). " + what + " The pipe will be closed.";
    }

    LogCapture log;
    QvtpServer::Limits limits;
};

TEST_F(RefusedClient, HasOneLineAlsoIfTheHandlerReadsOnAfterTheFailure) {
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse&) {
        std::istream& body = *request.getBodyStream();
        EXPECT_EQ(thrownBy([&] { body.ignore(1000); }), "QvPipeException: The request takes longer than 60 ms.");
        body.get();  // a standard stream throws a failure of its own then
    };
    limits.requestMs = 60;
    server.server.setLimits(limits);
    server.start();
    RawClient client(server.name);
    client.write("POST /p QVTP/1.0\r\nContent-Length: 5\r\n\r\nhe");
    client.readToEnd();
    EXPECT_TRUE(eventuallyLogs(log, limitLine("The request takes longer than 60 ms.")));
    EXPECT_FALSE(hasLoggedErrors());
}

TEST_F(RefusedClient, MayHaveSentASingleByteOfTheHeadThatTakesTooLong) {
    limits.headMs = 50;
    server.server.setLimits(limits);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    server.start();
    RawClient client(server.name);
    client.write(std::string(POST_HELLO) + "P");
    EXPECT_EQ(client.readToEnd(), HELLO_BACK);
    EXPECT_TRUE(eventuallyLogs(log, limitLine("The head takes longer than 50 ms.")));
}

TEST_F(RefusedClient, MayGoOnToWriteBitByBitBeforeItReads) {
    limits.bodyBytes = 4;
    server.server.setLimits(limits);
    server.start();
    RawClient client(server.name);
    const auto time = elapsed([&] {
        client.write(POST_HELLO);
        client.read(10);
        const std::string thrown = thrownBy([&] { client.write("x"); });  // it may be late, and the pipe closed
        client.readToEnd();
        EXPECT_TRUE(thrown == "nothing" || thrown == "BrokenPipeException: Pipe was closed at other end.") << thrown;
    });
    EXPECT_GE(time, 95ms);  // so long it may pause
}

}  // namespace
}  // namespace qvtp_test
