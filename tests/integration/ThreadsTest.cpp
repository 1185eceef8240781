#include <qvtp/qvtp.h>

#include "support/LogCapture.h"
#include "support/TestServer.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <sstream>
#include <vector>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

/// Client and server as threads of one process.
class EndToEnd : public ::testing::Test {
  protected:
    std::string post(const std::string& body, const std::string& resource = "/echo") {
        PostRequest request(&client, server.name, resource);
        request.setBody(body.data(), body.size());
        const std::unique_ptr<QvtpResponse> response(request.execute());
        return bodyOf(*response);
    }
    std::string postStreamed(const std::string& body) {
        std::istringstream in(body);
        PostRequest request(&client, server.name, "/echo");
        request.setBodyStream(&in);
        const std::unique_ptr<QvtpResponse> response(request.execute());
        std::ostringstream out;
        out << response->getBodyStream()->rdbuf();
        return out.str();
    }
    void answerInAStream() {
        server.handler.onPost = [](QvtpServerRequest& request, QvtpServerResponse& response) {
            const std::string body = bodyOf(request);
            response.setStatusCode(QvtpMessage::STATUS_OK);
            *response.getBodyStream() << body;
            response.send();
        };
    }
    static std::string bytes(std::size_t size) {
        std::string data(size, '\0');
        unsigned state = static_cast<unsigned>(size) + 1;
        for (char& c : data) c = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
        return data;
    }

    TestServer server;
    QvtpClient client;
};

class BodySizes : public EndToEnd, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(BodySizes, TravelBothWaysInBothFramings) {
    const std::string body = bytes(GetParam());
    server.start();
    EXPECT_TRUE(post(body) == body);
    EXPECT_TRUE(postStreamed(body) == body);
}

TEST_P(BodySizes, ComeBackInAStream) {
    const std::string body = bytes(GetParam());
    answerInAStream();
    server.start();
    EXPECT_TRUE(post(body) == body);
    EXPECT_TRUE(postStreamed(body) == body);
}

INSTANTIATE_TEST_SUITE_P(AroundTheBuffers, BodySizes,
                         ::testing::Values(0, 1, 4095, 4096, 4097, 40959, 40960, 40961, 65536, 1 << 20, 5000001));

TEST_F(EndToEnd, CarriesHeadersResourceAndStatus) {
    server.handler.onPost = [](QvtpServerRequest& request, QvtpServerResponse& response) {
        response.setStatusCode(413, request.getResource() + " " + request.getHeader("x-number"));
        response.addHeader("X-Agent", request.getHeader(QvtpMessage::HEADER_USER_AGENT));
        response.setBody("", 0);
        response.send();
    };
    server.start();
    PostRequest request(&client, server.name, "/gr\xC3\xBC\xC3\x9F");
    request.addHeader("X-Number", "42");
    request.setBody("", 0);
    const std::unique_ptr<QvtpResponse> response(request.execute());
    EXPECT_EQ(response->getStatusCode(), 413);
    EXPECT_EQ(response->getReasonPhrase(), "/gr\xC3\xBC\xC3\x9F 42");
    EXPECT_EQ(response->getHeader("x-agent"), "QvtpClient");
}

TEST_F(EndToEnd, KeepsManyThreadsApart) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 0);
    server.start();
    std::vector<std::future<int>> threads;
    for (int t = 0; t < 8; ++t) {
        threads.push_back(std::async(std::launch::async, [this, t] {
            int right = 0;
            for (int i = 0; i < 50; ++i) {
                const std::string body = bytes(static_cast<std::size_t>(t * 1000 + i * 97));
                right += (i % 2 == 0 ? post(body) : postStreamed(body)) == body;
            }
            return right;
        }));
    }
    for (auto& thread : threads) EXPECT_EQ(thread.get(), 50);
}

TEST_F(EndToEnd, LosesNoNotification) {
    std::atomic<int> received{0};
    server.handler.onNotify = [&](QvtpServerRequest& request) { received += std::stoi(bodyOf(request)); };
    server.start();
    int sent = 0;
    for (int i = 1; i <= 100; ++i) {
        NotifyRequest request(&client, server.name, "/n");
        const std::string body = std::to_string(i);
        request.setBody(body.data(), body.size());
        request.execute();
        sent += i;
    }
    EXPECT_TRUE(eventually([&] { return received == sent; }));
}

TEST_F(EndToEnd, ServesMoreClientsThanThreads) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 200);
    server.start();
    std::vector<std::future<std::string>> clients;
    for (int i = 0; i < 9; ++i) {
        clients.push_back(std::async(std::launch::async, [this] {
            QvtpClient own;
            PostRequest request(&own, server.name, "/echo");
            request.setBody("x", 1);
            const std::unique_ptr<QvtpResponse> response(request.execute());
            return bodyOf(*response);
        }));
    }
    for (auto& result : clients) EXPECT_EQ(result.get(), "x");
}

TEST_F(EndToEnd, ConnectsAgainAfterTheServerHungUpOnAnIdlePipe) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 50);
    server.start();
    LogCapture log;
    const int idle = server.server.idleRequestProcessors();
    EXPECT_EQ(post("one"), "one");
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Closing QvPipe (" + server.name + "/Worker-1). "); }));
    // The line stands before the close, which has happened when the thread is free again.
    ASSERT_TRUE(eventually([&] { return server.server.idleRequestProcessors() == idle; }));
    EXPECT_EQ(post("two"), "two");
    EXPECT_EQ(log.count("DEBUG Lost connection to server, attempt request with new connection. "
                        "Pipe was closed at other end."),
              1);
}

TEST_F(EndToEnd, AnswersAnErrorAndGoesOnOnTheSamePipe) {
    server.handler.onPost = [](QvtpServerRequest& request, QvtpServerResponse& response) {
        response.sendError(404, "No " + request.getResource());
    };
    server.start();
    for (int i = 0; i < 3; ++i) {
        PostRequest request(&client, server.name, "/x");
        request.setBody("ignored body", 12);
        const std::unique_ptr<QvtpResponse> response(request.execute());
        EXPECT_EQ(response->getStartLine(), "QVTP/1.0 404 No /x");
    }
    EXPECT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == 1; }));
}

TEST_F(EndToEnd, MarksTheLinesOfAThreadWithItsCorrelationId) {
    server.handler.onPost = [](QvtpServerRequest& request, QvtpServerResponse& response) {
        QvtpMessage::setLogCorrelationId(request.getHeader("X-Correlation"));
        response.setBody("", 0);
        response.send();
    };
    server.start();
    LogCapture log;
    PostRequest request(&client, server.name, "/x");
    request.setHeader("X-Correlation", "order-17");
    request.setBody("", 0);
    delete request.execute();
    EXPECT_TRUE(eventually([&] {
        return log.text().find(": order-17 - Reply:   QVTP/1.0 500 Internal Server Error- Quovane.SOA.Qvtp\n") !=
               std::string::npos;
    }));
}

TEST_F(EndToEnd, RecordsAnExchangeInTheCommunicationLog) {
    server.start();
    LogCapture log(LogCapture::LoggingLevel::INFO, LogCapture::CommunicationLevel::BOTH);
    EXPECT_EQ(post("hello"), "hello");
    const std::string record = log.communication();
    const std::string blanks(50, ' ');
    EXPECT_THAT(record, ::testing::HasSubstr(" [OUTPUT] " + blanks +
                                             "\nPOST /echo QVTP/1.0\r\nContent-Length: 5\r\nUser-Agent: "
                                             "QvtpClient\r\n\r\n"));
    EXPECT_THAT(record, ::testing::HasSubstr(" [INPUT ] " + blanks + "\nPOST /echo QVTP/1.0\n"));
    EXPECT_THAT(record, ::testing::HasSubstr(" [INPUT ] " + blanks + "\nQVTP/1.0 200 OK\n"));
}

TEST_F(EndToEnd, StopsWhileClientsAreBusy) {
    server.start();
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!done) thrownBy([&] { post("x"); });
        });
    }
    ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() > 0; }));
    EXPECT_LT(elapsed([&] { server.stop(); }), std::chrono::seconds(20));
    done = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(thrownBy([&] { post("x"); }).substr(0, 15), "QvPipeException");
}

}  // namespace
}  // namespace qvtp_test
