#include <qvtp/client/NotifyRequest.h>
#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpResponse.h>

#include "support/TestServer.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <string>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

const std::string SHORT = "hi";
const std::string LONG = "a longer body";

/// A body that is set twice leaves two lengths, of which the receiver reads the first. That harms its own exchange
/// only.
class TwoBodies : public ::testing::Test {
  protected:
    void SetUp() override {
        server.server.setOption(QvtpServer::IDLE_TIMEOUT, 300);
        server.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 300);
        server.handler.onNotify = [this](TestHandler::Request& request) {
            if (bodyOf(request) == LONG) ++notified;
        };
        server.handler.onPost = [](TestHandler::Request& request, TestHandler::Response& response) {
            const std::string body = bodyOf(request);
            const std::string resource = request.getResource();
            response.setStatusCode(QvtpMessage::STATUS_OK);
            if (resource == "/shorter-first") setBodies(response, SHORT, LONG);
            if (resource == "/longer-first") setBodies(response, LONG, SHORT);
            if (resource == "/echo") response.setBody(body.data(), body.size());
            response.send();
        };
        server.start();
    }

    template <typename Message>
    static void setBodies(Message& message, const std::string& first, const std::string& second) {
        message.setBody(first.data(), first.size());
        message.setBody(second.data(), second.size());
    }
    std::string execute(PostRequest& request) {
        const std::unique_ptr<QvtpResponse> response(request.execute());
        EXPECT_EQ(response->getStartLine(), "QVTP/1.0 200 OK");
        return bodyOf(*response);
    }
    std::string post(const std::string& body, const std::string& resource = "/echo") {
        PostRequest request(&client, server.name, resource);
        request.setBody(body.data(), body.size());
        return execute(request);
    }
    void notify(const std::string& first, const std::string& second) {
        NotifyRequest request(&client, server.name, "/event");
        setBodies(request, first, second);
        request.execute();
    }

    TestServer server;
    QvtpClient client;
    std::atomic<int> notified{0};
};

TEST_F(TwoBodies, OfARequestWithTheShorterFirstHarmNoOther) {
    {
        PostRequest request(&client, server.name, "/echo");
        setBodies(request, SHORT, LONG);
        EXPECT_EQ(execute(request), LONG.substr(0, SHORT.size()));
    }
    EXPECT_EQ(post("next"), "next");
}

TEST_F(TwoBodies, OfARequestWithTheLongerFirstHarmNoOther) {
    {
        PostRequest request(&client, server.name, "/echo");
        setBodies(request, LONG, SHORT);
        EXPECT_EQ(thrownBy([&] { execute(request); }),
                  "InterruptedException: Reached the stream end-of-file before the expected new line.");
    }
    EXPECT_EQ(post("next"), "next");
}

TEST_F(TwoBodies, OfANotificationHarmNoOther) {
    for (const auto& [first, second] : {std::pair(SHORT, LONG), std::pair(LONG, SHORT)}) {
        const int before = notified;
        notify(first, second);
        for (int i = 0; i < 3; ++i) {
            NotifyRequest request(&client, server.name, "/event");
            request.setBody(LONG.data(), LONG.size());
            request.execute();
        }
        EXPECT_TRUE(eventually([&] { return notified == before + 3; }));
    }
}

TEST_F(TwoBodies, OfAResponseWithTheShorterFirstHarmNoOther) {
    EXPECT_EQ(post("first", "/shorter-first"), LONG.substr(0, SHORT.size()));
    EXPECT_EQ(post("next"), "next");
}

TEST_F(TwoBodies, OfAResponseWithTheLongerFirstHarmNoOther) {
    EXPECT_EQ(thrownBy([&] { post("first", "/longer-first"); }),
              "QvPipeException: Reached the stream end-of-file before the expected length.");
    EXPECT_EQ(post("next"), "next");
}

TEST_F(TwoBodies, OfDifferentKindsHarmNoOther) {
    {
        std::istringstream stream(LONG);
        PostRequest request(&client, server.name, "/echo");
        request.setHeader(QvtpMessage::HEADER_CONTENT_LENGTH, "2");
        request.setBodyStream(&stream);
        execute(request);
    }
    EXPECT_EQ(post("next"), "next");
}

}  // namespace
}  // namespace qvtp_test
