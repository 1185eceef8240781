#include "message/InputBuffer.h"

#include "common/System.h"
#include "support/HasForm.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Quovane::Internal::Qvtp::InputBuffer;
namespace System = Quovane::Internal::Qvtp::System;
using qvtp_test::HasForm;
using qvtp_test::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t CHUNKED = InputBuffer::CHUNKED;

/// A body reader over bytes in memory.
class Body {
  public:
    Body(std::uint64_t length, const std::string& bytes) : stream_(bytes), input_(length, &stream_) {}

    std::string read(std::size_t size) {
        std::string buffer(size, '?');
        buffer.resize(input_.read(&buffer[0], size));
        return buffer;
    }
    std::vector<std::string> pieces(std::size_t size) {
        std::vector<std::string> result;
        for (std::string piece = read(size); !piece.empty(); piece = read(size)) result.push_back(piece);
        return result;
    }
    /// What the reader left on the stream.
    std::string left() {
        stream_.clear();
        return {std::istreambuf_iterator<char>(stream_), {}};
    }
    std::istream& stream() { return stream_; }
    InputBuffer& input() { return input_; }

  private:
    std::istringstream stream_;
    InputBuffer input_;
};

const char HELLO[] = "5\r\nhello\r\n0\r\n\r\n";

TEST(InputBufferLength, DeliversExactlyTheBodyInPiecesOfAtMostTheAskedSize) {
    Body body(7, "abcdefgNEXT");
    EXPECT_THAT(body.pieces(3), ElementsAre("abc", "def", "g"));
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferLength, EndsAtOnceWithAnEmptyBody) {
    Body body(0, "NEXT");
    EXPECT_EQ(body.read(10), "");
    EXPECT_EQ(body.read(10), "");
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferLength, DeliversWhatThereIsOfABodyThatIsCutOff) {
    const LogCapture log;
    Body body(10, "abcd");
    EXPECT_THAT(body.pieces(3), ElementsAre("abc", "d"));
    EXPECT_EQ(body.read(3), "");
    EXPECT_FALSE(body.input().isComplete());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(InputBufferChunked, TakesTheChunksOutOfTheirFraming) {
    Body body(CHUNKED, std::string(HELLO) + "NEXT");
    EXPECT_THAT(body.pieces(100), ElementsAre("hello"));
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferChunked, NeverReadsAcrossAChunk) {
    Body body(CHUNKED, "3\r\nabc\r\n4\r\ndefg\r\n0\r\n\r\nNEXT");
    EXPECT_THAT(body.pieces(3), ElementsAre("abc", "def", "g"));
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferChunked, AcceptsHexadecimalDigitsOfEitherCase) {
    Body body(CHUNKED, "a\r\n0123456789\r\nB\r\n0123456789a\r\n0\r\n\r\n");
    EXPECT_THAT(body.pieces(100), ElementsAre("0123456789", "0123456789a"));
    EXPECT_TRUE(body.input().isComplete());
}

TEST(InputBufferChunked, IgnoresWhatFollowsTheDigitsOfTheSize) {
    Body body(CHUNKED, "1;x=y\r\na\r\n2\nbc\r\n0 nothing\r\n\r\nNEXT");
    EXPECT_THAT(body.pieces(100), ElementsAre("a", "bc"));
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferChunked, AcceptsSignAndPrefixOfASize) {
    Body body(CHUNKED, " +0x2\r\nab\r\n00000000\r\n\r\nNEXT");
    EXPECT_THAT(body.pieces(100), ElementsAre("ab"));
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferChunked, TakesASizeWithoutDigitsForTheLastChunk) {
    Body body(CHUNKED, "xyz\r\n\r\nNEXT");
    EXPECT_THAT(body.pieces(100), IsEmpty());
    EXPECT_TRUE(body.input().isComplete());
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferChunked, EndsForGoodAfterTheLastChunk) {
    Body body(CHUNKED, "0\r\n\r\n5\r\nhello\r\n");
    EXPECT_EQ(body.read(10), "");
    EXPECT_EQ(body.read(10), "");
    EXPECT_EQ(body.left(), "5\r\nhello\r\n");
}

TEST(InputBufferChunked, AcceptsASizeLineOfNineteenCharacters) {
    Body body(CHUNKED, "000000000000000003\r\nabc\r\n0;34567890123456789\n\r\nNEXT");
    EXPECT_THAT(body.pieces(100), ElementsAre("abc"));
    EXPECT_EQ(body.left(), "NEXT");
}

const std::string INVALID_SIZE = "ERROR InputBuffer::read(): invalid chunksize line";
const std::string BAD_END = "ERROR Bad end of chunk";

/// The body of these bytes ends with nothing read, incomplete, and with this line.
void expectEnd(const std::string& bytes, const std::string& line) {
    SCOPED_TRACE(bytes);
    const LogCapture log;
    Body body(CHUNKED, bytes);
    EXPECT_EQ(body.read(10), "");
    EXPECT_THAT(log.messages(), ElementsAre(line));
    EXPECT_FALSE(body.input().isComplete());
}

TEST(InputBufferChunkedMalformed, EndsAtASizeLineThatIsTooLong) {
    expectEnd("0000000000000000003\r\nabc\r\n0\r\n\r\n", INVALID_SIZE);
}

TEST(InputBufferChunkedMalformed, ClearsTheFailureOfAnOverLongSizeLineButStaysEnded) {
    const LogCapture log;
    Body body(CHUNKED, "00000000000000000000000000\r\n3\r\nabc\r\n0\r\n\r\n");
    EXPECT_EQ(body.read(10), "");
    EXPECT_TRUE(body.stream().good());
    EXPECT_EQ(body.read(10), "");
    EXPECT_EQ(log.messages().size(), 1U);
}

TEST(InputBufferChunkedMalformed, EndsWhenTheStreamEndsInASizeLine) {
    for (const char* bytes : {"", "5", "0", "5\r", "0\r", "ffff"}) expectEnd(bytes, INVALID_SIZE);
}

TEST(InputBufferChunkedMalformed, TakesASizeBeyond32BitsForAnInvalidLine) {
    expectEnd("100000000\r\nabc\r\n", INVALID_SIZE);
}

TEST(InputBufferChunkedMalformed, AcceptsTheLargestSizeOf32Bits) {
    const LogCapture log;
    Body body(CHUNKED, "ffffffff\r\nabc");
    EXPECT_THAT(body.pieces(10), ElementsAre("abc"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(InputBufferChunkedMalformed, DropsTheBytesOfAChunkWithABadEnd) {
    for (const char* end : {"\n\r", "\r\r", "\n\n", "xy", "0\r"}) {
        expectEnd(std::string("5\r\nhello") + end + "0\r\n\r\n", BAD_END);
    }
}

TEST(InputBufferChunkedMalformed, DropsOnlyTheBytesOfTheCallThatMetTheBadEnd) {
    const LogCapture log;
    Body body(CHUNKED, "5\r\nhello**");
    EXPECT_THAT(body.pieces(3), ElementsAre("hel"));
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Bad end of chunk"));
}

TEST(InputBufferChunkedMalformed, EndsAtABadEndOfTheLastChunk) {
    for (const char* bytes : {"0\r\n", "0\r\n\r", "0\r\nX: 1\r\n\r\n"}) expectEnd(bytes, BAD_END);
}

TEST(InputBufferChunkedMalformed, DeliversWhatThereIsOfAChunkThatIsCutOff) {
    const LogCapture log;
    Body body(CHUNKED, "5\r\nhel");
    EXPECT_THAT(body.pieces(10), ElementsAre("hel"));
    EXPECT_FALSE(body.input().isComplete());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(InputBufferChunkedMalformed, StaysEndedAfterAFailure) {
    Body body(CHUNKED, "1\r\na**3\r\nabc\r\n0\r\n\r\n");
    EXPECT_EQ(body.read(10), "");
    EXPECT_EQ(body.read(10), "");
    EXPECT_EQ(body.left(), "3\r\nabc\r\n0\r\n\r\n");
}

TEST(InputBufferLimit, RefusesALengthThatIsMore) {
    EXPECT_TRUE(Body(7, "").input().limit(7));
    EXPECT_FALSE(Body(8, "").input().limit(7));
    EXPECT_TRUE(Body(CHUNKED, "").input().limit(0));
}

TEST(InputBufferLimit, ThrowsBeforeTheChunkThatIsTooMuchAndEndsForGood) {
    const std::string chunks = "3\r\nabc\r\n4\r\ndefg\r\n0\r\n\r\n";
    Body whole(CHUNKED, chunks);
    whole.input().limit(7);
    EXPECT_THAT(whole.pieces(9), ElementsAre("abc", "defg"));
    EXPECT_FALSE(whole.input().isOverLimit());

    LogCapture log;
    Body body(CHUNKED, chunks);
    body.input().limit(6);
    EXPECT_EQ(body.read(9), "abc");
    EXPECT_EQ(qvtp_test::thrownBy([&] { body.read(9); }), "QvPipeException: The body is longer than 6 bytes.");
    EXPECT_TRUE(body.input().isOverLimit());
    EXPECT_FALSE(body.input().isComplete());
    EXPECT_EQ(body.read(9), "");
    EXPECT_FALSE(body.input().skipRest(1000));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(InputBufferLog, ReportsTheThroughputOnceAtTheEnd) {
    const LogCapture log;
    Body body(5, "hello");
    EXPECT_THAT(body.pieces(2), ElementsAre("he", "ll", "o"));
    body.read(2);
    EXPECT_THAT(log.messages(), ElementsAre(HasForm("DEBUG Read 5 bytes from the QvPipe \\([0-9]+ Mbps\\)\\.")));
}

TEST(InputBufferLog, CountsTheBytesOfAllChunksWithoutTheirFraming) {
    const LogCapture log;
    Body body(CHUNKED, "400\r\n" + std::string(1024, 'x') + "\r\n400\r\n" + std::string(1024, 'y') + "\r\n0\r\n\r\n");
    EXPECT_EQ(body.pieces(2000).size(), 2U);
    EXPECT_THAT(log.messages(), ElementsAre(HasForm("DEBUG Read 2 Kb from the QvPipe \\([0-9]+ Mbps\\)\\.")));
}

TEST(InputBufferLog, ReportsTheThroughputOfAnEmptyBody) {
    const LogCapture log;
    Body body(0, "");
    body.read(1);
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG Read 0 bytes from the QvPipe (0 Mbps)."));
}

TEST(InputBufferLog, CountsTheTimeFromTheFirstRead) {
    const LogCapture log;
    Body body(4 << 20, std::string(4 << 20, 'x'));
    body.read(1);
    const std::int64_t start = System::wallClockMs();
    while (System::wallClockMs() < start + 3) std::this_thread::yield();
    body.read(4 << 20);
    // A rate that is counted from 1970 is 0.
    EXPECT_THAT(log.messages(), ElementsAre(HasForm("DEBUG Read 4 Mb from the QvPipe \\([1-9][0-9]* Mbps\\)\\.")));
}

TEST(InputBufferLog, ReportsNoThroughputBelowDebug) {
    const LogCapture log(LogCapture::LoggingLevel::INFO);
    Body body(5, "hello");
    body.pieces(10);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(InputBufferLog, RecordsTheBytesWithoutFramingAndALineFeedAtTheEnd) {
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::INPUT);
    Body body(CHUNKED, std::string("3\r\nabc\r\n2\r\n\0\xFF\r\n0\r\n\r\n", 20));
    body.pieces(2);
    EXPECT_EQ(log.communication(), std::string("abc\0\xFF\n", 6));
}

TEST(InputBufferLog, RecordsABodyOfKnownLengthWithALineFeedAtTheEnd) {
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::INPUT);
    Body body(5, "helloNEXT");
    body.pieces(2);
    body.read(2);
    EXPECT_EQ(log.communication(), "hello\n");
}

TEST(InputBufferLog, RecordsNothingWhenOnlyOutputIsRecorded) {
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::OUTPUT);
    Body body(5, "hello");
    body.pieces(2);
    EXPECT_EQ(log.communication(), "");
}

TEST(InputBufferIsComplete, HoldsForAnEmptyBodyBeforeItIsRead) {
    EXPECT_TRUE(Body(0, "").input().isComplete());
    EXPECT_FALSE(Body(1, "a").input().isComplete());
    EXPECT_FALSE(Body(CHUNKED, HELLO).input().isComplete());
}

TEST(InputBufferIsComplete, HoldsWithTheLastByteOfABodyOfKnownLength) {
    Body body(3, "abc");
    body.read(2);
    EXPECT_FALSE(body.input().isComplete());
    body.read(2);
    EXPECT_TRUE(body.input().isComplete());
}

TEST(InputBufferIsComplete, HoldsAfterTheLastChunkOnly) {
    Body body(CHUNKED, HELLO);
    EXPECT_EQ(body.read(10), "hello");
    EXPECT_FALSE(body.input().isComplete());
    EXPECT_EQ(body.read(10), "");
    EXPECT_TRUE(body.input().isComplete());
}

const std::string GIVEN_UP = "given up";

/// Skips until the message ends or the budget is gone; what is left of the budget.
std::string skipAll(InputBuffer& input, std::uint64_t budget) {
    while (!input.isComplete()) {
        if (!input.skipSome(budget)) return GIVEN_UP;
    }
    return std::to_string(budget) + " left";
}

TEST(InputBufferSkipSome, DropsTheRestOfABodyOfKnownLength) {
    Body body(10, "0123456789NEXT");
    body.read(3);
    EXPECT_EQ(skipAll(body.input(), 7), "0 left");
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferSkipSome, DropsTheRestOfAChunkedBody) {
    Body body(CHUNKED, "5\r\nhello\r\n3\r\nabc\r\n0\r\n\r\nNEXT");
    body.read(2);
    EXPECT_EQ(skipAll(body.input(), 10), "4 left");
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferSkipSome, DropsLargeBodiesPieceByPiece) {
    Body body(100000, std::string(100000, 'x') + "NEXT");
    EXPECT_EQ(skipAll(body.input(), 100000), "0 left");
    EXPECT_EQ(body.left(), "NEXT");
}

TEST(InputBufferSkipSome, ReadsNothingOfABodyThatIsLongerThanTheBudget) {
    Body body(10, "0123456789");
    EXPECT_EQ(skipAll(body.input(), 9), GIVEN_UP);
    EXPECT_EQ(body.left(), "0123456789");
}

TEST(InputBufferSkipSome, GivesUpOnChunksThatExceedTheBudget) {
    Body body(CHUNKED, "5\r\nhello\r\n5\r\nhello\r\n0\r\n\r\n");
    EXPECT_EQ(skipAll(body.input(), 9), GIVEN_UP);
}

TEST(InputBufferSkipSome, GivesUpOnABodyThatEndsTooEarly) {
    EXPECT_EQ(skipAll(Body(10, "0123").input(), 100), GIVEN_UP);
    EXPECT_EQ(skipAll(Body(CHUNKED, "5\r\nhel").input(), 100), GIVEN_UP);
    EXPECT_EQ(skipAll(Body(CHUNKED, "5\r\nhello\r\n").input(), 100), GIVEN_UP);
}

TEST(InputBufferSkipSome, GivesUpOnAMalformedChunk) {
    Body body(CHUNKED, "5\r\nhello**0\r\n\r\n");
    body.read(10);
    std::uint64_t budget = 100;
    EXPECT_FALSE(body.input().skipSome(budget));
    EXPECT_EQ(budget, 100U);
}

TEST(InputBufferSkipRest, StandsAfterABodyOfAsManyPiecesAsItHas) {
    Body body(100000, std::string(100000, 'x') + "NEXT");
    EXPECT_TRUE(body.input().skipRest(100000));
    EXPECT_EQ(body.left(), "NEXT");
    EXPECT_TRUE(body.input().skipRest(0));
}

TEST(InputBufferSkipRest, GivesUpWhereItsBudgetEnds) {
    Body body(CHUNKED, "5\r\nhello\r\n5\r\nhello\r\n0\r\n\r\n");
    EXPECT_FALSE(body.input().skipRest(9));
}

TEST(InputBufferDetach, EndsTheBodyAndLeavesTheStreamAlone) {
    Body body(10, "0123456789");
    body.read(3);
    body.input().detach();
    EXPECT_EQ(body.read(10), "");
    std::uint64_t budget = 100;
    EXPECT_FALSE(body.input().skipSome(budget));
    EXPECT_EQ(body.left(), "3456789");
}

TEST(InputBufferArrival, OfABodyOfKnownLengthIsAsManyBytes) {
    Body body(5, "");
    EXPECT_FALSE(body.input().hasArrived("hell"));
    EXPECT_TRUE(body.input().hasArrived("hello"));
    EXPECT_TRUE(body.input().hasArrived("hello, and more"));
}

TEST(InputBufferArrival, OfChunksIsAllUpToTheEndOfTheLastOne) {
    Body body(CHUNKED, "");
    const std::string chunks = HELLO;
    for (std::size_t size = 0; size < chunks.size(); ++size) {
        EXPECT_FALSE(body.input().hasArrived(chunks.substr(0, size))) << size;
    }
    EXPECT_TRUE(body.input().hasArrived(chunks));
    EXPECT_TRUE(body.input().hasArrived(chunks + "POST"));
}

/// What no more bytes can repair is not waited for: the reader reports it.
TEST(InputBufferArrival, IsThereWithASizeLineThatIsInvalid) {
    Body body(CHUNKED, "");
    EXPECT_TRUE(body.input().hasArrived("1\r\na\r\n123456789\r\n"));
    EXPECT_FALSE(body.input().hasArrived("1\r\na\r\n" + std::string(19, '0')));
    EXPECT_TRUE(body.input().hasArrived("1\r\na\r\n" + std::string(20, '0')));
}

TEST(InputBufferChunked, HasNoSizeLineOnAStreamThatHasFailed) {
    LogCapture log;
    Body body(CHUNKED, HELLO);
    body.stream().setstate(std::ios_base::badbit);
    EXPECT_EQ(body.read(10), "");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR InputBuffer::read(): invalid chunksize line"));
}

TEST(InputBufferLog, CountsFromTheEndWhereTheLevelWasOffAtTheBeginning) {
    Body body(7, "abcdefg");
    EXPECT_EQ(body.read(3), "abc");
    LogCapture log;
    EXPECT_EQ(body.read(10), "defg");
    EXPECT_THAT(log.messages(), ElementsAre(HasForm("DEBUG Read 7 bytes from the QvPipe \\([0-9]+ Mbps\\)\\.")));
}

}  // namespace
