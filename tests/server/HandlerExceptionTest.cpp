#include "server/Worker.h"
#include "support/Holdings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

constexpr char POST_FAIL[] = "POST /fail QVTP/1.0\r\nContent-Length: 0\r\n\r\n";
constexpr char NOTIFY_FAIL[] = "NOTIFY /fail QVTP/1.0\r\nContent-Length: 0\r\n\r\n";
constexpr char ERROR_500[] = "QVTP/1.0 500 Internal Server Error\r\nContent-Length: 0\r\nServer: QvtpServer\r\n\r\n";

/// An exception of the handler's own, which the library does not know.
class HandlerException : public Worker {
  protected:
    HandlerException() {
        server.handler.onNotify = [](QvtpServerRequest&) { throw std::runtime_error("out of ideas"); };
        server.handler.onPost = [](QvtpServerRequest& request, QvtpServerResponse& response) {
            if (request.getResource() == "/fail") throw std::runtime_error("out of ideas");
            const std::string body = bodyOf(request);
            response.setStatusCode(200);
            response.setBody(body.data(), body.size());
            response.send();
        };
    }
    ~HandlerException() override { server.stop(); }

    void start(QvtpServer::UnhandledExceptionPolicy policy) {
        server.server.setUnhandledExceptionPolicy(policy);
        server.start();
    }
    std::string line(const std::string& level, const std::string& what = "out of ideas") const {
        return level + " Unhandled exception in the handler (" + full() + "). " + what;
    }
    void expectReaped() {
        EXPECT_TRUE(eventually([&] {
            reap();
            return log.contains("DEBUG Deleting idle worker " + full() + ".");
        }));
    }
    LogCapture log;
};

TEST_F(HandlerException, IsLoggedAtWarnAndKeepsTheConnectionUnlessToldOtherwise) {
    server.start();
    RawClient client(server.name);
    client.write(POST_FAIL);
    EXPECT_TRUE(eventuallyLogs(log, line("WARN")));
    client.write(POST_HELLO);  // still connected
    server.stop();
    EXPECT_TRUE(log.contains("INFO ************* Worker thread not deleted: Worker-1"));
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos);
    EXPECT_EQ(client.readToEnd(), "");
}

TEST_F(HandlerException, OfNoStandardTypeIsLoggedWithoutItsText) {
    server.handler.onNotify = [](QvtpServerRequest&) { throw 42; };
    start(QvtpServer::CLOSE);
    RawClient client(server.name);
    client.write(NOTIFY_FAIL);
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_TRUE(log.contains(line("ERROR", "unknown type")));
}

TEST_F(HandlerException, LeavesNothingOpenForClientsThatHaveGone) {
    server.start();
    reap();
    const auto leave = [&] {
        RawClient client(server.name);
        const int before = log.count("DEBUG Begin processing of NOTIFY request (" + full() + ").");
        client.write(NOTIFY_FAIL);
        client.write("left behind");
        return before;
    };
    const auto threw = [&] {
        std::size_t lines = 0;
        const std::string text = log.text();
        for (std::size_t at = 0; (at = text.find("Unhandled exception", at)) != std::string::npos; ++at) ++lines;
        return lines;
    };
    for (std::size_t i = 1; i <= 5; ++i) {
        leave();
        ASSERT_TRUE(eventually([&] { return threw() == i; }));
    }
    reap();
    const Holdings before = Holdings::now();
    for (std::size_t i = 6; i <= 60; ++i) {
        leave();
        ASSERT_TRUE(eventually([&] { return threw() == i; }));
    }
    EXPECT_TRUE(eventually([&] {
        reap();
        return Holdings::now().handles <= before.handles + 2 + Holdings::LATE_HANDLES;
    })) << Holdings::now().handles
        << " after " << before.handles;
    EXPECT_GE(server.server.totalRequestProcessors(), 60);  // their entries stay until the stop
}

TEST_F(HandlerException, MayCloseTheConnection) {
    start(QvtpServer::CLOSE);
    RawClient client(server.name);
    client.write(POST_FAIL);
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_TRUE(log.contains(line("ERROR")));
    EXPECT_EQ(log.count(line("WARN")), 0);
    EXPECT_TRUE(eventuallyLogs(log, "DEBUG Closing QvPipe (" + full() + "). "));
    EXPECT_EQ(log.count("DEBUG Complete processing of POST request (" + full() + ")."), 0);
    expectReaped();
}

TEST_F(HandlerException, MayBeAnsweredWith500BeforeTheConnectionIsClosed) {
    start(QvtpServer::ANSWER);
    RawClient client(server.name);
    client.write(POST_FAIL);
    EXPECT_EQ(client.readToEnd(), ERROR_500);
    EXPECT_TRUE(log.contains(line("ERROR")));
    expectReaped();
}

TEST_F(HandlerException, IsAnsweredWithNothingOfTheHandlers) {
    server.handler.onPost = [](QvtpServerRequest&, QvtpServerResponse& response) {
        response.setStatusCode(200);
        response.setHeader("X-Secret", "1");
        response.setBody("half", 4);
        throw std::runtime_error("out of ideas");
    };
    start(QvtpServer::ANSWER);
    RawClient client(server.name);
    client.write(POST_FAIL);
    EXPECT_EQ(client.readToEnd(), ERROR_500);
}

TEST_F(HandlerException, IsNotAnsweredWhenSomethingWasSent) {
    server.handler.onPost = [](QvtpServerRequest&, QvtpServerResponse& response) {
        response.setStatusCode(200);
        *response.getBodyStream() << "half" << std::flush;
        throw std::runtime_error("out of ideas");
    };
    start(QvtpServer::ANSWER);
    RawClient client(server.name);
    client.write(POST_FAIL);
    EXPECT_EQ(client.readToEnd(),
              "QVTP/1.0 200 OK\r\nServer: QvtpServer\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nhalf\r\n");
    expectReaped();
}

TEST_F(HandlerException, IsNotAnsweredAfterANotification) {
    start(QvtpServer::ANSWER);
    RawClient client(server.name);
    client.write(NOTIFY_FAIL);
    EXPECT_EQ(client.readToEnd(), "");
    expectReaped();
}

TEST_F(HandlerException, IsAnsweredAlsoWhenTheRequestIsLarge) {
    start(QvtpServer::ANSWER);
    RawClient client(server.name);
    const std::string body(250000, 'x');
    client.write("POST /fail QVTP/1.0\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_EQ(client.readToEnd(), ERROR_500);
}

TEST_F(HandlerException, CostsOneRequestOnly) {
    start(QvtpServer::ANSWER);
    for (int i = 0; i < 30; ++i) {
        RawClient client(server.name);
        client.write(POST_FAIL);
        EXPECT_EQ(client.readToEnd(), ERROR_500);
    }
    EXPECT_EQ(RawClient(server.name).exchange(POST_HELLO, "QVTP/1.0 200 OK"), "QVTP/1.0 200 OK");
}

TEST_F(HandlerException, OfTheLibraryStaysAsItIs) {
    server.handler.onPost = [](QvtpServerRequest&, QvtpServerResponse& response) { response.send(); };
    start(QvtpServer::ANSWER);
    RawClient client(server.name);
    client.write(POST_FAIL);
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_TRUE(log.contains("ERROR Could not process the /fail request. The pipe will be closed."));
    EXPECT_EQ(log.count(line("ERROR")), 0);
}

TEST_F(HandlerException, SwallowedAfterAFailedReadClosesThePipeAtOnce) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    server.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 50);
    server.handler.onNotify = [](QvtpServerRequest& request) { thrownBy([&] { bodyOf(request); }); };
    server.start();
    RawClient client(server.name);
    client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 5\r\n\r\n");
    EXPECT_LT(elapsed([&] { EXPECT_EQ(client.readToEnd(), ""); }), 10s);
}

TEST_F(HandlerException, SwallowedAfterAFailedWriteClosesThePipeAtOnce) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    server.handler.onPost = [](QvtpServerRequest&, QvtpServerResponse& response) {
        const std::string big(8 << 20, 'x');
        response.setBody(big.data(), big.size());
        thrownBy([&] { response.send(); });
    };
    server.start();
    {
        RawClient client(server.name);
        client.write(POST_FAIL);
        client.read(1);
    }
    EXPECT_TRUE(eventuallyLogs(log, "DEBUG Closing QvPipe (" + full() + "). "));
}

TEST_F(HandlerException, WorkersAreReportedOrDeletedOneByOneAtTheStop) {
    server.start();
    RawClient first(server.name);
    first.exchange(POST_HELLO, "QVTP/1.0 200 OK");
    RawClient second(server.name);
    second.write(NOTIFY_FAIL);
    RawClient third(server.name);
    third.exchange(POST_HELLO, "QVTP/1.0 200 OK");
    ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == 3; }));
    const std::string failure = "Unhandled exception in the handler (" + full(2) + ")";
    ASSERT_TRUE(eventually([&] { return log.text().find(failure) != std::string::npos; }));
    server.stop();
    std::vector<std::string> lines;
    for (const std::string& message : log.messages()) {
        if (message.find("eleting worker") != std::string::npos || message.find("not deleted") != std::string::npos) {
            lines.push_back(message);
        }
    }
    EXPECT_THAT(
        lines, ElementsAre("DEBUG Deleting worker " + full(1), "INFO ************* Worker thread not deleted: Worker-2",
                           "DEBUG Deleting worker " + full(3)));
}

}  // namespace
}  // namespace qvtp_test
