#include "platform/PipeContract.h"

#include <atomic>

namespace qvtp_test {
namespace {

class CloseContract : public PipeContract {
  protected:
    void SetUp() override { pair(server, client); }

    End server;
    End client;
};

TEST_F(CloseContract, AbortsAPendingReadWithoutALine) {
    LogCapture log(LogCapture::LoggingLevel::DEBUG);
    std::vector<std::string> messages;
    std::string data;
    auto reading = std::async(std::launch::async, [&] {
        const int result = read(client, data, 100, 0);
        messages = log.messagesOfThisThread();
        return result;
    });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    platform::platformClose(client.pipe, client.event);
    EXPECT_EQ(reading.get(), ReadResult::ABORTED);
    client.forget();
    EXPECT_THAT(messages, IsEmpty());
}

TEST_F(CloseContract, AbortsAPendingWriteWithoutALine) {
    LogCapture log(LogCapture::LoggingLevel::DEBUG);
    std::vector<std::string> messages;
    auto writing = std::async(std::launch::async, [&] {
        const int result = write(client, std::string(4 << 20, 'x'));
        messages = log.messagesOfThisThread();
        return result;
    });
    EXPECT_EQ(readText(server, 1), "x");  // it has begun, and cannot complete
    platform::platformClose(client.pipe, client.event);
    EXPECT_EQ(writing.get(), WriteResult::ABORTED);
    client.forget();
    EXPECT_THAT(messages, IsEmpty());
}

TEST_F(CloseContract, AbortsReadsAgainAndAgain) {
    for (int round = 0; round < 200; ++round) {
        End listening, other;
        const std::string roundName = uniquePipeName();
        ASSERT_EQ(createNamed(listening, roundName), 0);
        ASSERT_EQ(connectNamed(other, roundName, 2000), 0);
        std::atomic<bool> started{false};
        std::string data;
        auto reading = std::async(std::launch::async, [&] {
            started = true;
            return read(other, data, 100, 0);
        });
        while (!started) std::this_thread::yield();
        platform::platformClose(other.pipe, other.event);
        const int result = reading.get();
        // A read that starts only after the close meets a stale handle.
        EXPECT_TRUE(result == ReadResult::ABORTED || result == ReadResult::FAILED) << result;
        other.forget();
    }
}

TEST_F(CloseContract, MakesLaterOperationsMeetAStaleHandle) {
    platform::platformClose(client.pipe, client.event);
    LogCapture log;
    EXPECT_EQ(readText(client), "-3");
    EXPECT_EQ(write(client, "x"), WriteResult::FAILED);
    EXPECT_THAT(log.messages(), ElementsAre("WARN ReadFile error: 6", "ERROR WriteFile error: 6"));
    client.forget();
}

TEST_F(CloseContract, LogsOnlyItsLineTheSecondTime) {
    const NativeHandle pipe = client.pipe, event = client.event;
    const std::string line = platform::text("DEBUG Close Handles: handle=", reinterpret_cast<void*>(pipe),
                                            "; event=", reinterpret_cast<void*>(event));
    LogCapture log;
    client.close();
    EXPECT_THAT(log.messages(), ElementsAre(line));
    platform::platformClose(pipe, event);
    EXPECT_THAT(log.messages(), ElementsAre(line, line));
}

TEST_F(CloseContract, CannotReachAPipeThatWasOpenedLater) {
    if (!backend::neverReusesHandles()) GTEST_SKIP() << "handle values are used again here";
    const NativeHandle pipe = client.pipe, event = client.event;
    client.close();
    server.close();
    End listening, other;
    ASSERT_EQ(create(listening), 0);
    ASSERT_EQ(connect(other), 0);
    ASSERT_EQ(accept(listening), 0);
    platform::platformClose(pipe, event);
    EXPECT_EQ(write(other, "x"), 0);
    EXPECT_EQ(readText(listening), "x");
}

TEST_F(CloseContract, AllowsInvalidHandles) {
    const std::string invalid = sizeof(void*) == 8 ? "0xffffffffffffffff" : "0xffffffff";
    LogCapture log;
    platform::platformClose(INVALID_NATIVE_HANDLE, INVALID_NATIVE_HANDLE);
    platform::platformCloseServer(INVALID_NATIVE_HANDLE, INVALID_NATIVE_HANDLE);
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG Close Handles: handle=" + invalid + "; event=" + invalid,
                                            "DEBUG Close Handles: handle=" + invalid + " event= " + invalid));
}

TEST_F(CloseContract, LeavesWhatWasWrittenToThePeer) {
    ASSERT_EQ(write(client, std::string(60000, 'x')), 0);
    client.close();
    EXPECT_EQ(readAll(server, 60000).size(), 60000U);
}

TEST_F(CloseContract, EndsOneConnectionOnly) {
    End next, other;
    ASSERT_EQ(createNext(next), 0);
    ASSERT_EQ(connect(other), 0);
    ASSERT_EQ(accept(next), 0);
    client.close();
    server.close();
    EXPECT_EQ(write(other, "x"), 0);
    EXPECT_EQ(readText(next), "x");
}

}  // namespace
}  // namespace qvtp_test
