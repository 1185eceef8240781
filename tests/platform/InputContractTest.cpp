#include "platform/PipeContract.h"

#include <string>
#include <thread>

namespace qvtp_test {
namespace {

namespace InputResult = Quovane::Internal::Qvtp::InputResult;

/// What a server needs to wait for a client and to part from it.
class InputContract : public PipeContract {
  protected:
    void SetUp() override { pair(server, client); }

    static int awaitInput(const End& end, int timeoutMs = 5000) {
        return PipeContract::awaitInput(end.pipe, end.event, timeoutMs);
    }
    std::future<int> awaitInputInBackground(int timeoutMs = 20000) {
        return inBackground([this, timeoutMs] { return awaitInput(server, timeoutMs); });
    }
    static std::string takeInput(const End& end, int length, bool wakeable = true) {
        std::string data(static_cast<std::size_t>(length), '\0');
        int taken = 0;
        EXPECT_EQ(platform::platformTakeInput(end.pipe, end.event, data.data(), length, 20000, wakeable, taken),
                  InputResult::INPUT);
        return data.substr(0, static_cast<std::size_t>(taken));
    }
    /// Where a wait takes nothing the read is a call of its own.
    static std::string takeOrRead(const End& end, int length) {
        const std::string taken = takeInput(end, length);
        return taken.empty() ? readText(end, length) : taken;
    }
    static bool isPending(const std::future<int>& call) {
        return call.wait_for(PENDING) == std::future_status::timeout;
    }

    End server;
    End client;
};

TEST_F(InputContract, FindsBytesThatAreThereAndTakesNone) {
    ASSERT_EQ(write(client, "hello"), 0);
    EXPECT_EQ(awaitInput(server), InputResult::INPUT);
    EXPECT_EQ(awaitInput(server), InputResult::INPUT);
    EXPECT_EQ(readText(server), "hello");
}

TEST_F(InputContract, EndsWhenBytesCome) {
    auto waiting = awaitInputInBackground();
    EXPECT_TRUE(isPending(waiting));
    ASSERT_EQ(write(client, "hello"), 0);
    EXPECT_EQ(waiting.get(), InputResult::INPUT);
    EXPECT_EQ(readText(server), "hello");
}

TEST_F(InputContract, EndsWhenThePeerClosesAndTheNextReadFindsAQuietEnd) {
    LogCapture log;
    auto waiting = awaitInputInBackground();
    EXPECT_TRUE(isPending(waiting));
    client.close();
    EXPECT_EQ(waiting.get(), InputResult::INPUT);
    log.clear();
    EXPECT_EQ(readText(server), "0");
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_EQ(readText(server), "-3");
}

TEST_F(InputContract, FindsAPeerThatHadClosedBeforeAndTheNextReadFails) {
    client.close();
    EXPECT_EQ(awaitInput(server), InputResult::INPUT);
    LogCapture log;
    EXPECT_EQ(readText(server), "-3");
    EXPECT_THAT(log.messages(), ElementsAre("WARN ReadFile error: 109"));
}

TEST_F(InputContract, TimesOutWithoutALine) {
    LogCapture log;
    const auto time = elapsed([&] { EXPECT_EQ(awaitInput(server, 60), InputResult::TIMED_OUT); });
    EXPECT_GE(time, 59ms);
    EXPECT_LT(time, AT_ONCE);
    EXPECT_THAT(log.messages(), IsEmpty());
    ASSERT_EQ(write(client, "late"), 0);
    EXPECT_EQ(readText(server), "late");
}

TEST_F(InputContract, IsWokenFromAnotherThread) {
    auto waiting = awaitInputInBackground();
    EXPECT_TRUE(isPending(waiting));
    platform::platformWake(server.pipe);
    EXPECT_EQ(waiting.get(), InputResult::WOKEN);
    EXPECT_EQ(awaitInput(server, 60), InputResult::TIMED_OUT);
}

TEST_F(InputContract, IsWokenByACallThatCameBefore) {
    platform::platformWake(server.pipe);
    EXPECT_EQ(awaitInput(server), InputResult::WOKEN);
    EXPECT_EQ(awaitInput(server, 60), InputResult::TIMED_OUT);
}

TEST_F(InputContract, IsWokenWheneverTheWakeUpComes) {
    for (int round = 0; round < 300; ++round) {
        auto waiting = std::async(std::launch::async, [this] { return awaitInput(server, 20000); });
        spinFor(std::chrono::microseconds(round % 60 * 5));
        platform::platformWake(server.pipe);
        ASSERT_EQ(waiting.get(), InputResult::WOKEN) << round;
    }
}

TEST_F(InputContract, FindsAQuietEndAlsoBetweenTwoWaits) {
    EXPECT_EQ(awaitInput(server, 20), InputResult::TIMED_OUT);
    client.close();
    EXPECT_EQ(awaitInput(server), InputResult::INPUT);
    LogCapture log;
    EXPECT_EQ(readText(server), "0");
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(InputContract, LeavesReadsAndWritesAloneWhenItIsWoken) {
    platform::platformWake(server.pipe);
    std::string data;
    EXPECT_EQ(read(server, data, 100, 60), ReadResult::TIMED_OUT);
    auto writing = std::async(std::launch::async, [&] { return write(server, std::string(2000000, 'x')); });
    for (int i = 0; i < 100; ++i) platform::platformWake(server.pipe);
    EXPECT_EQ(readAll(client, 2000000).size(), 2000000U);
    EXPECT_EQ(writing.get(), WriteResult::WRITTEN);
}

TEST_F(InputContract, TakesWhatHasComeAndNoMoreThanItWasAskedFor) {
    ASSERT_EQ(write(client, "hello"), 0);
    EXPECT_EQ(takeOrRead(server, 3), "hel");
    EXPECT_EQ(takeOrRead(server, 100), "lo");
    auto waiting = inBackground([this] { return takeOrRead(server, 100); });
    EXPECT_TRUE(waiting.wait_for(PENDING) == std::future_status::timeout);
    ASSERT_EQ(write(client, "again"), 0);
    EXPECT_EQ(waiting.get(), "again");
}

TEST_F(InputContract, TakesNothingFromAnEndAndTheNextReadFindsIt) {
    for (const bool wakeable : {true, false}) {
        End other;
        End otherClient;
        name = uniquePipeName();
        pair(other, otherClient);
        auto waiting = inBackground([&] { return takeInput(other, 100, wakeable); });
        EXPECT_TRUE(waiting.wait_for(PENDING) == std::future_status::timeout);
        otherClient.close();
        EXPECT_EQ(waiting.get(), "");
        LogCapture log;
        EXPECT_EQ(readText(other), "0");
        EXPECT_THAT(log.messages(), IsEmpty());
    }
}

TEST_F(InputContract, TimesOutInTimeWhateverEndsIt) {
    for (const bool wakeable : {true, false}) {
        for (const int timeoutMs : {1, 10, 300, 700}) {
            int taken = 1;
            char byte = 0;
            const auto time = elapsed([&] {
                EXPECT_EQ(platform::platformTakeInput(server.pipe, server.event, &byte, 1, timeoutMs, wakeable, taken),
                          InputResult::TIMED_OUT);
            });
            EXPECT_EQ(taken, 0);
            EXPECT_GE(time, std::chrono::milliseconds(timeoutMs) - 1ms) << timeoutMs;
            EXPECT_LT(time, std::chrono::milliseconds(timeoutMs) + AT_ONCE) << timeoutMs;
        }
    }
}

TEST_F(InputContract, IsEndedByACloseWheneverThatComes) {
    for (const int timeoutMs : {0, 400, 20000}) {
        for (int round = 0; round < 40; ++round) {
            const bool wakeable = round % 2 == 0;
            End other;
            End otherClient;
            name = uniquePipeName();
            pair(other, otherClient);
            auto waiting = std::async(std::launch::async, [&, pipe = other.pipe, event = other.event] {
                char byte = 0;
                int taken = 0;
                return platform::platformTakeInput(pipe, event, &byte, 1, timeoutMs, wakeable, taken);
            });
            auto reading = std::async(std::launch::async, [&, pipe = otherClient.pipe, event = otherClient.event] {
                char byte = 0;
                return platform::platformRead(pipe, event, &byte, 1, timeoutMs);
            });
            spinFor(std::chrono::microseconds(round * 5));
            // Each side's own close ends its wait. Where the peer closes first, its end may.
            const bool clientFirst = round % 4 < 2;
            if (!clientFirst) other.close();
            if (clientFirst) otherClient.close();
            const int first = clientFirst ? reading.get() : waiting.get();
            EXPECT_TRUE(first == InputResult::ABORTED || first == InputResult::FAILED) << first;  // FAILED: before
            if (clientFirst) {
                other.close();
                waiting.get();
            } else {
                otherClient.close();
                reading.get();
            }
        }
    }
}

TEST_F(InputContract, IsAbortedByAClose) {
    auto waiting = awaitInputInBackground();
    EXPECT_TRUE(isPending(waiting));
    server.close();
    EXPECT_EQ(waiting.get(), InputResult::ABORTED);
}

TEST_F(InputContract, IsAbortedByACloseAlsoWhenItIsWokenAtTheSameTime) {
    for (int round = 0; round < 50; ++round) {
        End other;
        End otherClient;
        name = uniquePipeName();
        pair(other, otherClient);
        auto waiting = std::async(std::launch::async, [&, pipe = other.pipe, event = other.event] {
            int result = InputResult::WOKEN;
            while (result == InputResult::WOKEN) result = PipeContract::awaitInput(pipe, event, 20000);
            return result;
        });
        std::thread waker([pipe = other.pipe] {
            for (int i = 0; i < 20; ++i) platform::platformWake(pipe);
        });
        other.close();
        const int result = waiting.get();
        EXPECT_TRUE(result == InputResult::ABORTED || result == InputResult::FAILED) << result;
        waker.join();
    }
}

TEST_F(InputContract, FailsOrLeavesItToTheReadOnAHandleThatDoesNotRead) {
    client.close();
    End next;
    ASSERT_EQ(createNext(next), 0);
    ASSERT_EQ(connect(client, 2000, false, true), 0);
    EXPECT_EQ(awaitInput(client, 100), backend::knowsDirectionOfWaits() ? InputResult::FAILED : InputResult::INPUT);
    char byte = 0;
    EXPECT_EQ(platform::platformRead(client.pipe, client.event, &byte, 1, 100), ReadResult::FAILED);
}

TEST_F(InputContract, FailsOnAClosedHandle) {
    const auto pipe = server.pipe;
    server.close();
    EXPECT_EQ(PipeContract::awaitInput(pipe, pipe, 100), InputResult::FAILED);
    EXPECT_EQ(platform::platformAvailable(pipe), 0U);
    EXPECT_TRUE(platform::platformPeerHasClosed(pipe));
    platform::platformWake(pipe);
    platform::platformEndReading(pipe);
}

TEST_F(InputContract, CountsTheBytesThatAreThere) {
    EXPECT_EQ(platform::platformAvailable(server.pipe), 0U);
    ASSERT_EQ(write(client, "hello"), 0);
    ASSERT_EQ(write(client, "you"), 0);
    EXPECT_EQ(platform::platformAvailable(server.pipe), 8U);
    EXPECT_EQ(readText(server, 6), "helloy");
    EXPECT_EQ(platform::platformAvailable(server.pipe), 2U);
    client.close();
    EXPECT_EQ(readText(server), "ou");
    EXPECT_EQ(platform::platformAvailable(server.pipe), 0U);
}

TEST_F(InputContract, KeepsWhatWasWrittenBeforeTheEndOfReading) {
    ASSERT_EQ(write(client, "before"), 0);
    platform::platformEndReading(server.pipe);
    EXPECT_EQ(write(client, "after"), backend::closesHalfOfAPipe() ? WriteResult::BROKEN : WriteResult::WRITTEN);
    EXPECT_EQ(readText(server, 6), "before");
    EXPECT_EQ(write(server, "answer"), 0);
    EXPECT_EQ(readText(client), "answer");
}

TEST_F(InputContract, SaysWhetherThePeerHasClosed) {
    EXPECT_FALSE(platform::platformPeerHasClosed(server.pipe));
    ASSERT_EQ(write(client, "left behind"), 0);
    client.close();
    EXPECT_TRUE(eventually([&] { return platform::platformPeerHasClosed(server.pipe); }));
}

class GatheredWriteContract : public InputContract {
  protected:
    /// Writes both blocks; the first call and what is left of it.
    int writeBoth(const End& end, const std::string& first, const std::string& second, std::size_t& written) {
        return platform::platformWriteSome(end.pipe, end.event, first.data(), first.size(), second.data(),
                                           second.size(), written);
    }
};

TEST_F(GatheredWriteContract, WritesTwoSmallBlocksInOneCall) {
    std::size_t written = 0;
    EXPECT_EQ(writeBoth(client, "head", "body", written), WriteResult::WRITTEN);
    EXPECT_EQ(written, 8U);
    EXPECT_EQ(readText(server), "headbody");
}

TEST_F(GatheredWriteContract, WritesOneBlockAndNone) {
    std::size_t written = 0;
    EXPECT_EQ(writeBoth(client, "head", "", written), WriteResult::WRITTEN);
    EXPECT_EQ(written, 4U);
    EXPECT_EQ(writeBoth(client, "", "body", written), WriteResult::WRITTEN);
    EXPECT_EQ(written, 4U);
    EXPECT_EQ(writeBoth(client, "", "", written), WriteResult::WRITTEN);
    EXPECT_EQ(written, 0U);
    EXPECT_EQ(readText(server), "headbody");
}

TEST_F(GatheredWriteContract, WritesTheBeginningOfLargeBlocks) {
    const std::string first(3000, 'h');
    const std::string second(3000000, 'b');
    std::size_t written = 0;
    EXPECT_EQ(writeBoth(client, first, second, written), WriteResult::WRITTEN);
    EXPECT_GE(written, 3000U);
    EXPECT_LT(written, 3003000U);
    EXPECT_EQ(readAll(server, written), (first + second).substr(0, written));
}

TEST_F(GatheredWriteContract, WritesBothPartsOfOneBlock) {
    std::string block(3000000, 'b');
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>('a' + i % 23);
    for (const std::size_t first : {std::size_t{1}, std::size_t{100}, std::size_t{300000}}) {
        for (const std::size_t length : {first, first + 1, first + 40, first + 5000, block.size()}) {
            std::size_t done = 0;
            ASSERT_EQ(platform::platformWriteSome(client.pipe, client.event, block.data(), first, block.data() + first,
                                                  length - first, done),
                      WriteResult::WRITTEN);
            ASSERT_GT(done, 0U);
            ASSERT_LE(done, length);
            ASSERT_EQ(readAll(server, done), block.substr(0, done)) << first << " of " << length;
        }
    }
}

TEST_F(GatheredWriteContract, WaitsForRoom) {
    std::size_t written = 1;
    while (platform::platformAvailable(server.pipe) < 60000) ASSERT_EQ(write(client, std::string(4000, 'x')), 0);
    auto writing = std::async(std::launch::async, [&] {
        std::size_t all = 0;
        while (all < 3000000 && writeBoth(client, "h", std::string(2999999, 'b'), written) == 0) all += written;
        return all >= 3000000 ? WriteResult::WRITTEN : WriteResult::FAILED;
    });
    std::string data;
    while (writing.wait_for(0ms) != std::future_status::ready) read(server, data, 65536, 20);
    EXPECT_EQ(writing.get(), WriteResult::WRITTEN);
}

TEST_F(GatheredWriteContract, BreaksWithNothingWrittenWhenThePeerHasClosed) {
    LogCapture log;
    server.close();
    log.clear();
    std::size_t written = 1;
    EXPECT_EQ(writeBoth(client, "head", "body", written), WriteResult::BROKEN);
    EXPECT_EQ(written, 0U);
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG WriteFile broken pipe"));
}

TEST_F(GatheredWriteContract, FailsOnAClosedHandle) {
    const auto pipe = client.pipe;
    client.close();
    std::size_t written = 1;
    LogCapture log;
    EXPECT_EQ(platform::platformWriteSome(pipe, pipe, "a", 1, "b", 1, written), WriteResult::FAILED);
    EXPECT_EQ(written, 0U);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR WriteFile error: 6"));
}

TEST_F(InputContract, FindsNothingBeforeThereIsAClient) {
    const std::string other = name + "-other";
    End waiting, late;
    ASSERT_EQ(createNamed(waiting, other), 0);
    EXPECT_EQ(platform::platformAvailable(waiting.pipe), 0U);
    platform::platformEndReading(waiting.pipe);
    ASSERT_EQ(connectNamed(late, other, 2000), 0);
    ASSERT_EQ(accept(waiting), 0);
    ASSERT_EQ(write(late, "there"), 0);
    EXPECT_EQ(readText(waiting), "there");
}

TEST_F(GatheredWriteContract, WritesNothingOfTwoEmptyBlocksAndFailsOnAStaleHandle) {
    EXPECT_EQ(platform::platformWriteBoth(client.pipe, client.event, "", 0, "", 0), WriteResult::WRITTEN);
    const End stale = std::move(client);
    platform::platformClose(stale.pipe, stale.event);
    EXPECT_EQ(platform::platformWriteBoth(stale.pipe, stale.event, "a", 1, "b", 1), WriteResult::FAILED);
}

}  // namespace
}  // namespace qvtp_test
