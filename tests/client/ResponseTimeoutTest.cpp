#include "client/Requests.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace qvtp_test {
namespace {

constexpr char TIMED_OUT[] = "TimeoutException: QvPipe read timeout.";
constexpr int PAUSE_MS = 500;  // a server on a busy machine answers within that

/// How long a POST waits for its response.
class ResponseTimeout : public Requests {
  protected:
    /// A POST that the server has taken and does not answer yet. Its outcome comes in `executing`.
    std::unique_ptr<PostRequest> begin(const std::string& resource) {
        auto request = std::make_unique<PostRequest>(&client, name, resource);
        request->setBody("x", 1);
        executing = execute(*request);
        if (pipe == nullptr) pipe = server.accept();
        sent = RawServer::readUntil(*pipe, "\r\n\r\nx");
        return request;
    }

    std::future<std::string> executing;
    std::string sent;
};

TEST_F(ResponseTimeout, IsOffUnlessItIsSet) {
    EXPECT_EQ(client.getResponseTimeout(), 0);
    client.setResponseTimeout(1500);
    EXPECT_EQ(client.getResponseTimeout(), 1500);
}

TEST_F(ResponseTimeout, EndsTheWaitForAnAnswerThatDoesNotCome) {
    client.setResponseTimeout(150);
    const auto request = begin("/slow");
    const auto time = elapsed([&] { EXPECT_EQ(executing.get(), TIMED_OUT); });
    EXPECT_LT(time, 10s);
    EXPECT_EQ(response, nullptr);
}

TEST_F(ResponseTimeout, WaitsItsWholeTime) {
    client.setResponseTimeout(150);
    PostRequest request(&client, name, "/slow");
    request.setBody("x", 1);
    EXPECT_GE(elapsed([&] { EXPECT_EQ(execute(request).get(), TIMED_OUT); }), 145ms);
}

TEST_F(ResponseTimeout, ClosesThePipeAtOnceAndNotWithItsRequest) {
    client.setResponseTimeout(100);
    const auto request = begin("/slow");
    EXPECT_EQ(executing.get(), TIMED_OUT);
    EXPECT_TRUE(isClosed(*pipe));
}

TEST_F(ResponseTimeout, EndsAHeadThatStops) {
    client.setResponseTimeout(PAUSE_MS);
    const auto request = begin("/slow");
    RawServer::write(*pipe, "QVTP/1.0 200 OK\r\nContent-Le");
    EXPECT_EQ(executing.get(), TIMED_OUT);
    EXPECT_TRUE(isClosed(*pipe));
}

TEST_F(ResponseTimeout, IsForEachPauseAndNotForTheWholeResponse) {
    client.setResponseTimeout(3000);
    const auto request = begin("/steady");
    for (const char* piece : {"QVTP/1.0 200 OK\r\n", "Content-Length: 2\r\n", "\r\n", "hi"}) {
        std::this_thread::sleep_for(800ms);  // the pauses are what is tested: more than the time-out in all
        RawServer::write(*pipe, piece);
    }
    EXPECT_EQ(executing.get(), "nothing");
    EXPECT_EQ(bodyOfResponse(), "hi");
}

TEST_F(ResponseTimeout, EndsABodyThatStopsAndItsPipe) {
    for (const bool whole : {true, false}) {
        client.setResponseTimeout(PAUSE_MS);
        pipe.reset();
        auto request = begin("/slow");
        RawServer::write(*pipe, "QVTP/1.0 200 OK\r\nContent-Length: 20000\r\n\r\nhalf");
        EXPECT_EQ(executing.get(), "nothing");
        char* data = nullptr;
        size_t size = 0;
        const std::string thrown = thrownBy([&] {
            if (whole) {
                response->getBody(&data, size);
            } else {
                response->getBodyStream()->ignore(20000);
            }
        });
        EXPECT_EQ(thrown, TIMED_OUT) << whole;
        EXPECT_EQ(data, nullptr);
        response.reset();
        request.reset();
        EXPECT_TRUE(isClosed(*pipe)) << whole;
    }
}

TEST_F(ResponseTimeout, DoesNotStayOnAPipeThatIsUsedAgain) {
    client.setResponseTimeout(PAUSE_MS);
    auto request = begin("/quick");
    RawServer::write(*pipe, OK_RESPONSE);
    EXPECT_EQ(executing.get(), "nothing");
    EXPECT_EQ(bodyOfResponse(), "hi");
    response.reset();
    request.reset();

    client.setResponseTimeout(0);
    request = begin("/slow");  // on the same pipe, or nobody would read it
    EXPECT_EQ(executing.wait_for(std::chrono::milliseconds(PAUSE_MS + 200)), std::future_status::timeout);
    RawServer::write(*pipe, OK_RESPONSE);
    EXPECT_EQ(executing.get(), "nothing");
    response.reset();
}

TEST_F(ResponseTimeout, GivesTheReadTimeoutOfAManagersPipeBack) {
    OwnPipe manager(name);
    QvtpClient caller(&manager);
    caller.setResponseTimeout(60000);
    pipe = server.accept();
    {
        PostRequest request(&caller, name, "/quick");
        request.setBody("x", 1);
        exchange(request, "\r\n\r\nx");
        EXPECT_EQ(manager.pipe.getReadTimeout(), 60000);
        EXPECT_EQ(bodyOfResponse(), "hi");
        response.reset();
    }
    EXPECT_EQ(manager.returned, 1);
    EXPECT_EQ(manager.pipe.getReadTimeout(), 5000);
}

TEST_F(ResponseTimeout, HandsAPipeThatWasLateToItsManagerOnce) {
    OwnPipe manager(name);
    QvtpClient caller(&manager);
    caller.setResponseTimeout(100);
    pipe = server.accept();
    {
        PostRequest request(&caller, name, "/slow");
        request.setBody("x", 1);
        EXPECT_EQ(execute(request).get(), TIMED_OUT);
        EXPECT_EQ(manager.removed, 1);
    }
    EXPECT_EQ(manager.removed, 1);
    EXPECT_EQ(manager.returned, 0);
}

}  // namespace
}  // namespace qvtp_test
