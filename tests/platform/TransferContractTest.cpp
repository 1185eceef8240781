#include "platform/PipeContract.h"

#include <atomic>
#include <thread>

namespace qvtp_test {
namespace {

/// Both ends of one connection.
class TransferContract : public PipeContract {
  protected:
    void SetUp() override { pair(server, client); }

    End server;
    End client;
};

class ReadContract : public TransferContract {
  protected:
    /// What the server's end shows of what has come for it.
    std::string peek(std::size_t length) const {
        std::string bytes(length, '\0');
        bytes.resize(platform::platformPeek(server.pipe, bytes.data(), length));
        return bytes;
    }
};

TEST_F(ReadContract, GivesAtMostWhatIsAskedForAndKeepsTheRest) {
    ASSERT_EQ(write(server, "0123456789"), 0);
    EXPECT_EQ(readText(client, 4), "0123");
    EXPECT_EQ(readText(client, 100), "456789");
}

TEST_F(ReadContract, JoinsSeparateWrites) {
    for (const char* piece : {"12345", "abcdefg", "xyz"}) ASSERT_EQ(write(client, piece), 0);
    EXPECT_EQ(readText(server), "12345abcdefgxyz");
}

// Whatever a read may have taken beyond what it was asked for.
TEST_F(ReadContract, GivesAllThatIsThereInPiecesOfAnySize) {
    for (const std::size_t size : {1U, 4095U, 4096U, 4097U, 5119U, 5120U, 5121U, 9000U, 20000U}) {
        for (const int length : {1000, 2048, 4095, 4096, 8192, 10000}) {
            std::string sent(size, '\0');
            for (std::size_t i = 0; i < size; ++i) sent[i] = static_cast<char>(i * 7 + i / 256);
            std::string got;
            std::string data;
            for (int message = 0; message < 3; ++message) {
                ASSERT_EQ(write(client, sent), 0);
                for (std::size_t left = size; left > 0; left -= data.size()) {
                    ASSERT_EQ(platform::platformAvailable(server.pipe), left);
                    ASSERT_EQ(peek(left + 1), sent.substr(size - left)) << size << " " << length;
                    ASSERT_EQ(peek(left / 2), sent.substr(size - left, left / 2)) << size << " " << length;
                    ASSERT_EQ(PipeContract::awaitInput(server.pipe, server.event, 1000), 0);
                    ASSERT_EQ(read(server, data, length), std::min(static_cast<int>(left), length));
                    ASSERT_EQ(data, sent.substr(size - left, data.size())) << size << " " << length;
                }
            }
        }
    }
    client.close();
    EXPECT_EQ(platform::platformAvailable(server.pipe), 0U);
    EXPECT_EQ(readText(server), "-3");
}

TEST_F(ReadContract, FindsDataWithLengthZeroAlsoAmongWhatItHadTakenBefore) {
    std::string data;
    ASSERT_EQ(write(client, std::string(4096, 'a')), 0);
    ASSERT_EQ(read(server, data, 4096), 4096);
    ASSERT_EQ(write(client, std::string(4100, 'b')), 0);
    ASSERT_EQ(read(server, data, 4096), 4096);
    EXPECT_EQ(read(server, data, 0), 0);
    EXPECT_EQ(readText(server), "bbbb");
}

TEST_F(ReadContract, FindsTheEndAfterWhatItHadTakenBefore) {
    std::string data;
    ASSERT_EQ(write(client, std::string(4096, 'a')), 0);
    ASSERT_EQ(read(server, data, 4096), 4096);
    ASSERT_EQ(write(client, std::string(4500, 'b')), 0);
    ASSERT_EQ(read(server, data, 4096), 4096);
    client.close();
    EXPECT_EQ(platform::platformAvailable(server.pipe), 404U);
    EXPECT_EQ(peek(1000), std::string(404, 'b'));
    ASSERT_EQ(read(server, data, 4096), 404);
    EXPECT_EQ(data, std::string(404, 'b'));
    EXPECT_EQ(peek(1000), "");
    EXPECT_EQ(readText(server), "-3");
}

TEST_F(ReadContract, EndsAPendingReadWithFewerBytesThanAskedFor) {
    auto reading = inBackground([&] { return readText(server); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(write(client, "abc"), 0);
    EXPECT_EQ(reading.get(), "abc");
}

TEST_F(ReadContract, LeavesWhatAPendingReadDidNotAskFor) {
    auto reading = inBackground([&] { return readText(server, 4); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(write(client, "0123456789"), 0);
    EXPECT_EQ(reading.get(), "0123");
    EXPECT_EQ(readText(server), "456789");
}

TEST_F(ReadContract, TimesOut) {
    LogCapture log;
    std::string data;
    EXPECT_GE(elapsed([&] { EXPECT_EQ(read(server, data, 100, 100), ReadResult::TIMED_OUT); }), 95ms);
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG Read timed out."));
}

TEST_F(ReadContract, KeepsBytesThatComeAfterATimeout) {
    std::string data;
    ASSERT_EQ(read(server, data, 100, 20), ReadResult::TIMED_OUT);
    ASSERT_EQ(write(client, "late"), 0);
    EXPECT_EQ(readText(server), "late");
}

TEST_F(ReadContract, WaitsForDataAlsoWithLengthZero) {
    std::string data;
    auto reading = inBackground([&] { return read(server, data, 0, 0); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(write(client, "x"), 0);
    EXPECT_EQ(reading.get(), 0);
    EXPECT_EQ(readText(server), "x");
}

TEST_F(ReadContract, IsNotEndedByAWriteOfNothing) {
    std::string data;
    ASSERT_EQ(write(client, ""), 0);
    EXPECT_EQ(read(server, data, 100, 50), ReadResult::TIMED_OUT);
}

TEST_F(ReadContract, ReportsTheEndAsZeroIfThePeerClosesWhileItWaits) {
    LogCapture log(LogCapture::LoggingLevel::INFO);
    auto reading = inBackground([&] { return readText(server); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    client.close();
    EXPECT_EQ(reading.get(), "0");
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ReadContract, FailsIfThePeerHadClosedBefore) {
    client.close();
    LogCapture log;
    EXPECT_EQ(readText(server), "-3");
    EXPECT_THAT(log.messages(), ElementsAre("WARN ReadFile error: 109"));
}

TEST_F(ReadContract, GivesWhatTheServerWroteBeforeItClosed) {
    ASSERT_EQ(write(server, "last words"), 0);
    server.close();
    EXPECT_EQ(readText(client, 4), "last");
    EXPECT_EQ(readText(client), " words");
    EXPECT_EQ(readText(client), "-3");
}

TEST_F(ReadContract, GivesWhatTheClientWroteBeforeItClosed) {
    ASSERT_EQ(write(client, "last words"), 0);
    client.close();
    EXPECT_EQ(readText(server), "last words");
    EXPECT_EQ(readText(server), "-3");
}

TEST_F(ReadContract, GivesThemAlsoIfThePeerLeftOurBytesUnread) {
    ASSERT_EQ(write(server, "never read"), 0);
    ASSERT_EQ(write(client, "last words"), 0);
    client.close();
    EXPECT_EQ(readText(server), "last words");
    EXPECT_EQ(readText(server), "-3");
    EXPECT_EQ(readText(server), "-3");
}

TEST_F(ReadContract, FailsOnAnInvalidHandle) {
    LogCapture log;
    EXPECT_EQ(readText(End()), "-3");
    EXPECT_THAT(log.messages(), ElementsAre("WARN ReadFile error: 6"));
}

TEST_F(ReadContract, CompletesAWriteAtOnceThatIsShorterThanWhatItAsksFor) {
    std::string data;
    auto reading = std::async(std::launch::async, [&] { return read(server, data, 200000, 0); });
    EXPECT_EQ(write(client, std::string(100000, 'x')), 0);
    EXPECT_GT(reading.get(), 0);
}

class OneWayContract : public PipeContract {};

TEST_F(OneWayContract, RefusesToReadWithoutReadAccess) {
    End server, client;
    ASSERT_EQ(create(server, true, false), 0);
    ASSERT_EQ(connect(client, 2000, false, true), 0);
    ASSERT_EQ(accept(server), 0);
    LogCapture log;
    EXPECT_EQ(readText(client), "-3");
    EXPECT_EQ(write(server, "x"), WriteResult::FAILED);
    EXPECT_THAT(log.messages(), ElementsAre("WARN ReadFile error: 5", "ERROR WriteFile error: 5"));
    EXPECT_EQ(write(client, "x"), 0);
    EXPECT_EQ(readText(server), "x");
}

TEST_F(OneWayContract, RefusesToWriteWithoutWriteAccess) {
    End server, client;
    ASSERT_EQ(create(server, false, true), 0);
    ASSERT_EQ(connect(client, 2000, true, false), 0);
    ASSERT_EQ(accept(server), 0);
    LogCapture log;
    EXPECT_EQ(write(client, "x"), WriteResult::FAILED);
    EXPECT_EQ(readText(server), "-3");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR WriteFile error: 5", "WARN ReadFile error: 5"));
}

class WriteContract : public TransferContract {};

TEST_F(WriteContract, MakesNoCallForLengthZero) {
    LogCapture log;
    EXPECT_EQ(platform::platformWrite(INVALID_NATIVE_HANDLE, INVALID_NATIVE_HANDLE, nullptr, 0), 0);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(WriteContract, FindsAPeerThatHasClosedBroken) {
    client.close();
    LogCapture log;
    EXPECT_EQ(write(server, "x"), WriteResult::BROKEN);
    EXPECT_EQ(write(server, "x"), WriteResult::BROKEN);
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG WriteFile broken pipe", "DEBUG WriteFile broken pipe"));
}

TEST_F(WriteContract, FindsAPeerBrokenThatLeftBytesUnreadAndWhoseBytesAreUnread) {
    ASSERT_EQ(write(server, "unread"), 0);
    ASSERT_EQ(write(client, "unread"), 0);
    client.close();
    LogCapture log;
    EXPECT_EQ(write(server, "x"), WriteResult::BROKEN);
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG WriteFile broken pipe"));
}

TEST_F(WriteContract, EndsBrokenWithoutALineIfThePeerClosesWhileItWaits) {
    LogCapture log(LogCapture::LoggingLevel::DEBUG);
    std::vector<std::string> messages;
    auto writing = std::async(std::launch::async, [&] {
        const int result = write(server, std::string(4 << 20, 'x'));
        messages = log.messagesOfThisThread();
        return result;
    });
    EXPECT_EQ(readText(client, 1), "x");  // it has begun, and cannot complete
    client.close();
    EXPECT_EQ(writing.get(), WriteResult::BROKEN);
    EXPECT_THAT(messages, IsEmpty());
}

TEST_F(WriteContract, FailsOnAnInvalidHandle) {
    LogCapture log;
    EXPECT_EQ(write(End(), "x"), WriteResult::FAILED);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR WriteFile error: 6"));
}

class PipeCapacity : public TransferContract, public ::testing::WithParamInterface<int> {};

TEST_P(PipeCapacity, Takes65536BytesWithoutAReader) {
    const std::string piece(static_cast<std::size_t>(GetParam()), 'x');
    EXPECT_LT(elapsed([&] {
                  for (int sent = 0; sent + GetParam() <= 65536; sent += GetParam()) ASSERT_EQ(write(client, piece), 0);
              }),
              5s);
    client.close();
    const std::size_t expected = 65536 / piece.size() * piece.size();
    EXPECT_EQ(readAll(server, expected).size(), expected);
}

INSTANTIATE_TEST_SUITE_P(InPieces, PipeCapacity, ::testing::Values(65536, 4096, 1000, 200));

TEST_F(WriteContract, TakesNearlyAsMuchInSmallPieces) {
    const std::string piece(120, 'x');
    std::size_t sent = 0;
    for (; sent < 64600; sent += piece.size()) ASSERT_EQ(write(client, piece), 0) << sent;
    EXPECT_EQ(readAll(server, sent).size(), sent);
}

TEST_F(WriteContract, TakesMoreThanAPipeOrWaitsForAReader) {
    const std::string block(200000, 'x');
    auto writing = std::async(std::launch::async, [&] { return write(client, block); });
    const bool complete = writing.wait_for(500ms) == std::future_status::ready;
    EXPECT_EQ(complete, backend::buffersMoreThanAPipe());
    EXPECT_EQ(readAll(server, block.size()).size(), block.size());
    EXPECT_EQ(writing.get(), 0);
}

TEST_F(WriteContract, CompletesWhenTheReaderHasLeftNoMoreThanAPipeUnread) {
    const std::size_t size = 1 << 20;
    auto writing = std::async(std::launch::async, [&] { return write(client, std::string(size, 'x')); });
    std::size_t taken = 0;
    std::string data;
    while (taken < size - 60000) taken += static_cast<std::size_t>(read(server, data, 1000));
    EXPECT_EQ(writing.wait_for(8s), std::future_status::ready);
    EXPECT_EQ(writing.get(), 0);
}

TEST_F(WriteContract, CarriesEveryByteInOrder) {
    std::string block(3 << 20, '\0');
    unsigned state = 1;
    for (char& c : block) c = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
    auto writing = std::async(std::launch::async, [&] { return write(client, block); });
    EXPECT_TRUE(readAll(server, block.size()) == block);
    EXPECT_EQ(writing.get(), 0);
}

TEST_F(WriteContract, TimesOutAfterTenSecondsWithoutAReader) {
    LogCapture log;
    const auto time = elapsed([&] { EXPECT_EQ(write(client, std::string(1 << 20, 'x')), WriteResult::TIMED_OUT); });
    EXPECT_GE(time, 9990ms);
    EXPECT_LT(time, 10300ms);
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG Write timed out."));
    std::size_t delivered = 0;
    std::string data;
    while (read(server, data, 65536, 200) > 0) delivered += data.size();
    EXPECT_GT(delivered, 65535U);
    EXPECT_EQ(delivered == 1 << 20, backend::deliversTimedOutWrites());
}

TEST_F(WriteContract, HasTenSecondsForAllOrForEachStepAheadWhenItsReaderIsSlow) {
    std::atomic<bool> done{false};
    auto writing = std::async(std::launch::async, [&] {
        const int result = write(client, std::string(1 << 20, 'x'));
        done = true;
        return result;
    });
    // 60000 bytes a second: what no buffer takes of the block has not arrived after ten seconds.
    const auto start = std::chrono::steady_clock::now();
    std::string data;
    while (!done) {
        ASSERT_GT(read(server, data, 6000), 0);
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, 9900ms);
    EXPECT_EQ(writing.get(), backend::renewsWriteTimeOnProgress() ? WriteResult::WRITTEN : WriteResult::TIMED_OUT);
}

}  // namespace
}  // namespace qvtp_test
