#include "platform/PipeContract.h"

#include <atomic>
#include <thread>

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
    auto reading = inBackground([&] {
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

/// Calls that a close meets at every moment of theirs. One that starts only after the close meets a stale handle.
class CloseAtAnyMoment : public PipeContract {
  protected:
    /// `call` runs on the end that is closed meanwhile. Expects one of the two results, the first at least once, and
    /// the second only with the line of a stale handle.
    template <typename Call>
    void closeDuring(const Call& call, int aborted, int failed, const std::string& staleLine) {
        int abortedCalls = 0;
        for (int round = 0; round < 200; ++round) {
            End server, client;
            const std::string roundName = uniquePipeName();
            ASSERT_EQ(createNamed(server, roundName), 0);
            if (connects) {
                ASSERT_EQ(connectNamed(client, roundName, 2000), 0);
                ASSERT_EQ(accept(server), 0);
            }
            const LogCapture log(LogCapture::LoggingLevel::WARN);
            std::atomic<bool> started{false};
            auto running = std::async(std::launch::async, [&] {
                started = true;
                return call(server);
            });
            while (!started) std::this_thread::yield();
            spinFor(std::chrono::microseconds(round * 5));
            platform::platformClose(server.pipe, server.event);
            const int result = running.get();
            server.forget();
            if (result == aborted) {
                ++abortedCalls;
                EXPECT_THAT(log.messages(), IsEmpty());
            } else {
                EXPECT_EQ(result, failed);
                EXPECT_THAT(log.messages(), ElementsAre(staleLine));
            }
        }
        EXPECT_GT(abortedCalls, 0);
    }

    bool connects = true;
};

TEST_F(CloseAtAnyMoment, AbortsReads) {
    std::string data;
    closeDuring([&](const End& end) { return read(end, data, 100, 0); }, ReadResult::ABORTED, ReadResult::FAILED,
                "WARN ReadFile error: 6");
}

TEST_F(CloseAtAnyMoment, AbortsWrites) {
    const std::string block(1 << 20, 'x');
    closeDuring([&](const End& end) { return write(end, block); }, WriteResult::ABORTED, WriteResult::FAILED,
                "ERROR WriteFile error: 6");
}

TEST_F(CloseAtAnyMoment, AbortsAccepts) {
    connects = false;
    closeDuring([&](const End& end) { return accept(end, 0); }, AcceptResult::ABORTED, AcceptResult::CONNECT_ERROR,
                "ERROR Connect error: 6");
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
    const std::string line = platform::text("DEBUG Close Handles: handle=", platform::printable(pipe),
                                            "; event=", platform::printable(event));
    LogCapture log;
    client.close();
    EXPECT_THAT(log.messages(), ElementsAre(line));
    platform::platformClose(pipe, event);
    EXPECT_THAT(log.messages(), ElementsAre(line, line));
}

TEST_F(CloseContract, CannotReachAPipeThatWasOpenedLater) {
    // Systems that give the values of handles out again do so at once.
    for (int round = 0; round < 20; ++round) {
        const NativeHandle stale[][2] = {{client.pipe, client.event}, {server.pipe, server.event}};
        client.close();
        server.close();
        pair(server, client);
        for (const auto& handles : stale) {
            char byte = 0;
            EXPECT_EQ(platform::platformWrite(handles[0], handles[1], "y", 1), WriteResult::FAILED);
            EXPECT_EQ(platform::platformRead(handles[0], handles[1], &byte, 1, 10), ReadResult::FAILED);
            platform::platformClose(handles[0], handles[1]);
        }
        ASSERT_EQ(write(client, "x"), 0);
        ASSERT_EQ(readText(server), "x");
    }
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
