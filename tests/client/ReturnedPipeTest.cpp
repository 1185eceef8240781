#include "client/Requests.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace qvtp_test {
namespace {

/// What becomes of a pipe when its request goes.
class ReturnedPipe : public Requests {
  protected:
    /// Executes a POST that is answered so, and destroys it after `use`.
    template <typename Use>
    void post(const std::string& answer, const Use& use) {
        PostRequest request(&client, name, "/first");
        request.setBody("x", 1);
        exchange(request, "x", answer);
        use();
        response.reset();
    }
    void post(const std::string& answer) {
        post(answer, [] {});
    }
    /// Whether the next request comes on the same pipe.
    bool isReused() {
        PostRequest request(&client, name, "/next");
        request.setBody("x", 1);
        auto executing = execute(request);
        std::string sent;
        const bool same = thrownBy([&] { sent = RawServer::readUntil(*pipe, "\r\n\r\nx"); }) == "nothing" &&
                          sent.find("/next") != std::string::npos;
        if (!same) {
            pipe = server.accept();
            sent = RawServer::readUntil(*pipe, "\r\n\r\nx");
        }
        RawServer::write(*pipe, OK_RESPONSE);
        EXPECT_EQ(executing.get(), "nothing");
        EXPECT_EQ(bodyOfResponse(), "hi");
        response.reset();
        return same;
    }
};

TEST_F(ReturnedPipe, IsUsedAgainAfterAResponseThatWasRead) {
    post(OK_RESPONSE, [&] { bodyOfResponse(); });
    EXPECT_TRUE(isReused());
}

TEST_F(ReturnedPipe, IsUsedAgainAfterAResponseThatWasNotRead) {
    post(OK_RESPONSE);
    EXPECT_TRUE(isReused());
    post("QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
         [&] { EXPECT_EQ(response->getBodyStream()->get(), 'a'); });
    EXPECT_TRUE(isReused());
}

TEST_F(ReturnedPipe, IsUsedAgainAfterWhatComesAtOnce) {
    PostRequest next(&client, name, "/r");
    {
        PostRequest request(&client, name, "/first");
        request.setBody("x", 1);
        exchange(request, "x", "QVTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nab");
        response.reset();
        RawServer::write(*pipe, "cde");
    }
    EXPECT_TRUE(isReused());
}

TEST_F(ReturnedPipe, IsGivenUpWhenTheRestDoesNotComeInTime) {
    const auto time = elapsed([&] { post("QVTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nab"); });
    EXPECT_GE(time, 95ms);
    EXPECT_LT(time, 10s);
    EXPECT_FALSE(isReused());
}

TEST_F(ReturnedPipe, IsGivenUpWithoutALineWhenAChunkDoesNotComeInTime) {
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    post("QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n");
    EXPECT_THAT(log.messages(), ::testing::IsEmpty());
    EXPECT_FALSE(isReused());
}

/// A byte every 30 ms, each in time for a read of its own: what a request waits for them is limited all the same.
TEST_F(ReturnedPipe, IsGivenUpInTimeWhenTheRestDrips) {
    const std::string chunked = "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const std::string& answer :
         {chunked, chunked + "4000\r\n", std::string("QVTP/1.0 200 OK\r\nContent-Length: 60\r\n\r\n")}) {
        auto request = std::make_unique<PostRequest>(&client, name, "/first");
        request->setBody("x", 1);
        pipe.reset();
        exchange(*request, "x", answer);
        std::atomic<bool> stop{false};
        std::thread dripping([&] {
            const std::string drops(60, '0');  // of a size line, of data: two seconds in all
            for (std::size_t i = 0; i < drops.size() && !stop; ++i) {
                if (thrownBy([&] { RawServer::write(*pipe, drops.substr(i, 1)); }) != "nothing") return;
                std::this_thread::sleep_for(30ms);
            }
        });
        const auto time = elapsed([&] { request.reset(); });
        stop = true;
        dripping.join();
        EXPECT_GE(time, 95ms) << answer;
        EXPECT_LT(time, 1500ms) << answer;
        EXPECT_TRUE(isClosed(*pipe));
        response.reset();
    }
}

TEST_F(ReturnedPipe, IsUsedAgainAfter64KiBAtMost) {
    post("QVTP/1.0 200 OK\r\nContent-Length: 65536\r\n\r\n" + std::string(65536, 'x'));
    EXPECT_TRUE(isReused());
    post("QVTP/1.0 200 OK\r\nContent-Length: 65537\r\n\r\n" + std::string(65537, 'x'));
    EXPECT_FALSE(isReused());
}

TEST_F(ReturnedPipe, IsUsedAgainAfter64KiBInChunksAtMost) {
    const std::string chunk = "4000\r\n" + std::string(0x4000, 'x') + "\r\n";
    const std::string head = "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    post(head + chunk + chunk + chunk + chunk + "0\r\n\r\n");
    EXPECT_TRUE(isReused());
    post(head + chunk + chunk + chunk + chunk + "1\r\nx\r\n0\r\n\r\n");
    EXPECT_FALSE(isReused());
}

TEST_F(ReturnedPipe, IsGivenUpWithBytesAfterAResponseThatWasRead) {
    post(OK_RESPONSE + std::string("x"), [&] { bodyOfResponse(); });
    EXPECT_FALSE(isReused());
    post("QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n0\r\n\r\n",
         [&] { bodyOfResponse(); });
    EXPECT_FALSE(isReused());
}

TEST_F(ReturnedPipe, IsGivenUpWithBytesAfterAResponseOfAnySizeThatWasRead) {
    for (const std::size_t size : {4000U, 4095U, 4096U, 8192U, 20000U, 60000U}) {
        const std::string head = "QVTP/1.0 200 OK\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n";
        post(head + std::string(size, 'b') + OK_RESPONSE, [&] { EXPECT_EQ(bodyOfResponse().size(), size); });
        EXPECT_FALSE(isReused()) << size;
        post(head + std::string(size, 'b'), [&] { bodyOfResponse(); });
        EXPECT_TRUE(isReused()) << size;
    }
}

/// One read brings 4096 bytes into the stream, and another 1024 may come with it.
TEST_F(ReturnedPipe, IsGivenUpWithBytesAfterAResponseThatEndsWhereAReadDoes) {
    const std::string head = "QVTP/1.0 200 OK\r\nContent-Length: 4000\r\n\r\n";
    for (const std::size_t whole : {4095U, 4096U, 4097U, 5119U, 5120U, 5121U, 8192U}) {
        const std::size_t size = whole - head.size();
        std::string answer = head + std::string(size, 'b');
        answer.replace(answer.find("4000"), 4, std::to_string(size));
        for (int round = 0; round < 3; ++round) {
            post(answer + OK_RESPONSE, [&] { EXPECT_EQ(bodyOfResponse().size(), size); });
            ASSERT_FALSE(isReused()) << whole;  // otherwise no answer is the right one from now on
            post(answer, [&] { bodyOfResponse(); });
            ASSERT_TRUE(isReused()) << whole;
        }
    }
}

TEST_F(ReturnedPipe, IsGivenUpWithBytesThatComeLaterAfterALargeBodyOrChunks) {
    const std::string chunked = "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n";
    const std::string large = "QVTP/1.0 200 OK\r\nContent-Length: 4096\r\n\r\n" + std::string(4096, 'b');
    for (const std::string& answer : {chunked, large, large}) {
        post(answer, [&] {
            bodyOfResponse();
            RawServer::write(*pipe, OK_RESPONSE);
        });
        EXPECT_FALSE(isReused());
        post(answer, [&] { bodyOfResponse(); });
        EXPECT_TRUE(isReused());
    }
}

TEST_F(ReturnedPipe, IsGivenUpWithBytesAfterABodyThatDidNotGoThroughTheReadersArea) {
    OwnPipe manager(name);
    QvtpClient caller(&manager);
    pipe = server.accept();
    {
        PostRequest request(&caller, name, "/r");
        request.setBody("x", 1);
        exchange(request, "x", "QVTP/1.0 200 OK\r\nContent-Length: 1000\r\n\r\n");
        RawServer::write(*pipe, std::string(1000, 'b') + OK_RESPONSE);
        EXPECT_EQ(bodyOfResponse().size(), 1000U);
        response.reset();
    }
    EXPECT_EQ(manager.returned, 0);
    EXPECT_EQ(manager.removed, 1);
}

TEST_F(ReturnedPipe, IsGivenUpWithBytesAfterAResponseThatWasSkipped) {
    post(OK_RESPONSE + std::string(OK_RESPONSE));
    EXPECT_FALSE(isReused());
    post("QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n\r\n");
    EXPECT_FALSE(isReused());
}

TEST_F(ReturnedPipe, IsGivenUpWithBytesAfterAResponseWithoutABody) {
    post("QVTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\nx", [&] { bodyOfResponse(); });
    EXPECT_FALSE(isReused());
    post("QVTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\nx");
    EXPECT_FALSE(isReused());
}

TEST_F(ReturnedPipe, IsGivenUpAfterAMalformedChunk) {
    post("QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabcXX0\r\n\r\n",
         [&] { response->getBodyStream()->ignore(100); });
    EXPECT_FALSE(isReused());
}

TEST_F(ReturnedPipe, IsGivenUpAfterAResponseWithoutALength) {
    {
        PostRequest request(&client, name, "/first");
        request.setBody("x", 1);
        auto executing = execute(request);
        pipe = server.accept();
        RawServer::readUntil(*pipe, "x");
        RawServer::write(*pipe, "QVTP/1.0 200 OK\r\n\r\n");
        EXPECT_EQ(executing.get(),
                  "QvPipeException: The QVTP Message does not have a Content-Length or Transfer-Encoding header "
                  "[1011]");
        EXPECT_EQ(response, nullptr);
    }
    EXPECT_TRUE(isClosed(*pipe));
}

TEST_F(ReturnedPipe, KeepsItsReadTimeout) {
    post(OK_RESPONSE);
    QvPipe* const idle = client.getManager()->getPipe(name, "rw");
    EXPECT_EQ(idle->getReadTimeout(), 0);
    client.getManager()->returnPipe(idle);
}

TEST_F(ReturnedPipe, IsOutOfReachOfAResponseThatOutlivesItsRequest) {
    {
        PostRequest request(&client, name, "/first");
        request.setBody("x", 1);
        exchange(request, "x");
    }
    const std::unique_ptr<QvtpResponse> late = std::move(response);
    RawServer::write(*pipe, "not for the late response");
    EXPECT_EQ(late->getBodyStream()->get(), std::char_traits<char>::eof());
}

}  // namespace
}  // namespace qvtp_test
