#include "message/StreamUtil.h"

#include "support/ChoppedStreamBuf.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <istream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Quovane::Internal::Qvtp::StreamUtil;
using qvtp_test::ChoppedStreamBuf;
using qvtp_test::LogCapture;
using qvtp_test::thrownBy;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char LINE_CUT_OFF[] = "InterruptedException: Reached the stream end-of-file before the expected new line.";
const char BODY_CUT_OFF[] = "QvPipeException: Reached the stream end-of-file before the expected length.";

std::string lineOf(std::istream& in) {
    std::string room = "left over";
    return std::string(StreamUtil::readLine(in, room));
}

std::string bytesOf(std::istream& in, long length) {
    char* data = nullptr;
    StreamUtil::readLength(in, &data, length);
    const std::unique_ptr<char[]> block(data);
    return {block.get(), static_cast<std::size_t>(length > 0 ? length : 0) + 1};
}

std::string everythingOf(std::istream& in) {
    char* data = nullptr;
    const std::size_t length = StreamUtil::readToEnd(in, &data);
    const std::unique_ptr<char[]> block(data);
    return {block.get(), length + 1};
}

std::string rest(std::istream& in) {
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string numbered(std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 23);
    return text;
}

/// Fails with an exception instead of giving bytes.
class BrokenStreamBuf : public std::streambuf {
    int_type underflow() override { throw std::runtime_error("broken"); }
};

/// Gives so many bytes and keeps the lengths it is asked for.
class CountedSource : public std::streambuf {
  public:
    explicit CountedSource(std::streamsize length) : left_(length) {}
    const std::vector<std::streamsize>& asked() const { return asked_; }

  private:
    std::streamsize xsgetn(char* data, std::streamsize length) override {
        asked_.push_back(length);
        const std::streamsize count = std::min(length, left_);
        std::fill_n(data, count, 'x');
        left_ -= count;
        return count;
    }

    std::streamsize left_;
    std::vector<std::streamsize> asked_;
};

TEST(StreamUtilReadLine, DropsEitherLineEnd) {
    std::istringstream in("abc\r\ndef\n\r\n\nlast\r\n");
    EXPECT_EQ(lineOf(in), "abc");
    EXPECT_EQ(lineOf(in), "def");
    EXPECT_EQ(lineOf(in), "");
    EXPECT_EQ(lineOf(in), "");
    EXPECT_EQ(lineOf(in), "last");
}

TEST(StreamUtilReadLine, KeepsCarriageReturnsThatAreNotTheLineEnd) {
    std::istringstream in("\ra\rb\r\r\n");
    EXPECT_EQ(lineOf(in), "\ra\rb\r");
}

TEST(StreamUtilReadLine, KeepsZeroBytes) {
    std::istringstream in(std::string("a\0b\n", 4));
    EXPECT_EQ(lineOf(in), std::string("a\0b", 3));
}

TEST(StreamUtilReadLine, ReadsNothingBeyondTheLine) {
    std::istringstream in("abc\r\nrest");
    lineOf(in);
    EXPECT_EQ(rest(in), "rest");
}

TEST(StreamUtilReadLine, ReadsLinesAroundEveryMultipleOfItsBuffer) {
    for (const std::size_t multiple : {2047U, 4094U, 6141U}) {
        for (std::size_t length = multiple - 3; length <= multiple + 4; ++length) {
            for (const char* end : {"\n", "\r\n"}) {
                std::istringstream in(numbered(length) + end + "rest");
                EXPECT_EQ(lineOf(in), numbered(length)) << length;
                EXPECT_EQ(rest(in), "rest") << length;
            }
        }
    }
}

TEST(StreamUtilReadLine, LeavesTheStreamGoodAfterALongLine) {
    std::istringstream in(numbered(5000) + "\r\nnext\r\n");
    lineOf(in);
    EXPECT_TRUE(in.good());
    EXPECT_EQ(lineOf(in), "next");
}

TEST(StreamUtilReadLine, GoesOnAfterAFailureThatTookNothingButNotAtTheEnd) {
    std::istringstream in("a\r\nb\r\n");
    in.setstate(std::ios_base::failbit);
    EXPECT_EQ(lineOf(in), "a");
    in.setstate(std::ios_base::failbit | std::ios_base::eofbit);
    EXPECT_EQ(thrownBy([&] { lineOf(in); }), LINE_CUT_OFF);
    in.clear();
    EXPECT_EQ(lineOf(in), "b");
}

TEST(StreamUtilReadLine, ThrowsAtTheEndOfTheStreamEvenAfterContent) {
    const LogCapture log;
    for (const std::size_t length : {0U, 1U, 3U, 2046U, 2047U, 2048U, 4094U, 4095U}) {
        std::istringstream in(numbered(length));
        EXPECT_EQ(thrownBy([&] { lineOf(in); }), LINE_CUT_OFF) << length;
    }
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(StreamUtilReadLine, ThrowsBetweenCarriageReturnAndLineFeed) {
    std::istringstream in("abc\r");
    EXPECT_EQ(thrownBy([&] { lineOf(in); }), LINE_CUT_OFF);
}

TEST(StreamUtilReadLine, ThrowsAgainOnAStreamAtItsEnd) {
    std::istringstream in("");
    EXPECT_EQ(thrownBy([&] { lineOf(in); }), LINE_CUT_OFF);
    EXPECT_EQ(thrownBy([&] { lineOf(in); }), LINE_CUT_OFF);
}

TEST(StreamUtilReadLine, EndsOnABadStreamAsAtItsEnd) {
    std::istringstream in("abc\n");
    in.setstate(std::ios_base::badbit);
    EXPECT_EQ(thrownBy([&] { lineOf(in); }), LINE_CUT_OFF);
    BrokenStreamBuf broken;
    std::istream turnsBad(&broken);
    EXPECT_EQ(thrownBy([&] { lineOf(turnsBad); }), LINE_CUT_OFF);
}

TEST(StreamUtilReadLine, LetsTheExceptionsOfTheStreamPass) {
    BrokenStreamBuf broken;
    std::istream in(&broken);
    in.exceptions(std::ios_base::badbit);
    EXPECT_EQ(thrownBy([&] { lineOf(in); }), "std::exception: broken");
}

TEST(StreamUtilReadLine, ReadsTheSameHoweverTheLineIsSplit) {
    const std::string line = numbered(4096);
    for (const std::size_t split : {0U, 1U, 2046U, 2047U, 2048U, 4094U, 4095U, 4096U, 4097U, 4098U}) {
        ChoppedStreamBuf chopped(line + "\r\nrest", split);
        std::istream in(&chopped);
        EXPECT_EQ(lineOf(in), line) << split;
        EXPECT_EQ(chopped.left().size(), 4U) << split;
    }
}

TEST(StreamUtilReadLength, GivesTheBytesAndAZeroByteAfterThem) {
    std::istringstream in(std::string("a\0cdrest", 8));
    EXPECT_EQ(bytesOf(in, 4), std::string("a\0cd\0", 5));
    EXPECT_EQ(rest(in), "rest");
}

TEST(StreamUtilReadLength, GivesAnEmptyBlockForZeroAndLess) {
    std::istringstream in("abc");
    for (const long length : {0L, -1L, -2147483647L - 1})
        EXPECT_EQ(bytesOf(in, length), std::string(1, '\0')) << length;
    EXPECT_EQ(rest(in), "abc");
}

TEST(StreamUtilReadLength, GivesAnEmptyBlockEvenOnAStreamAtItsEnd) {
    std::istringstream in("");
    in.get();
    EXPECT_EQ(bytesOf(in, 0), std::string(1, '\0'));
}

TEST(StreamUtilReadLength, ReadsUpToTheVeryEnd) {
    std::istringstream in("abc");
    EXPECT_EQ(bytesOf(in, 3), std::string("abc\0", 4));
}

TEST(StreamUtilReadLength, WarnsAndThrowsWhenTheStreamEndsFirst) {
    const LogCapture log;
    std::istringstream in("abcd");
    char* data = nullptr;
    EXPECT_EQ(thrownBy([&] { StreamUtil::readLength(in, &data, 10); }), BODY_CUT_OFF);
    EXPECT_EQ(data, nullptr);
    EXPECT_THAT(log.messages(), ElementsAre("WARN Reached the stream end-of-file before the expected length."));
}

TEST(StreamUtilReadLength, EndsOnABadStreamAsAtItsEnd) {
    std::istringstream in("abcd");
    in.setstate(std::ios_base::badbit);
    EXPECT_EQ(thrownBy([&] { bytesOf(in, 4); }), BODY_CUT_OFF);
}

TEST(StreamUtilReadLength, LetsTheExceptionsOfTheStreamPass) {
    BrokenStreamBuf broken;
    std::istream in(&broken);
    in.exceptions(std::ios_base::badbit);
    EXPECT_EQ(thrownBy([&] { bytesOf(in, 1); }), "std::exception: broken");
}

TEST(StreamUtilReadLength, ReadsTheSameHoweverTheBytesAreSplit) {
    for (std::size_t split = 0; split <= 12; ++split) {
        ChoppedStreamBuf chopped("0123456789rest", split);
        std::istream in(&chopped);
        EXPECT_EQ(bytesOf(in, 10), std::string("0123456789\0", 11)) << split;
        EXPECT_EQ(rest(in), "rest") << split;
    }
}

TEST(StreamUtilReadToEnd, GivesEverythingAndAZeroByteAfterIt) {
    for (const std::size_t length :
         {0U, 1U, 40959U, 40960U, 40961U, 81919U, 81920U, 81921U, 100000U, 163840U, 163841U}) {
        std::istringstream in(numbered(length));
        EXPECT_EQ(everythingOf(in), numbered(length) + '\0') << length;
    }
}

TEST(StreamUtilReadToEnd, GivesNothingOfAStreamAtItsEndAlready) {
    std::istringstream in("");
    in.get();
    EXPECT_EQ(everythingOf(in), std::string(1, '\0'));
}

TEST(StreamUtilReadToEnd, DoublesItsBlockWheneverItIsFull) {
    CountedSource source(100000);
    std::istream in(&source);
    EXPECT_EQ(everythingOf(in).size(), 100001U);
    EXPECT_THAT(source.asked(), ElementsAre(40960, 40960, 81920));
}

TEST(StreamUtilReadToEnd, KeepsZeroBytes) {
    std::istringstream in(std::string("a\0b", 3));
    EXPECT_EQ(everythingOf(in), std::string("a\0b\0", 4));
}

TEST(StreamUtilReadToEnd, EndsOnABadStreamAsAtItsEnd) {
    std::istringstream in("abc");
    in.setstate(std::ios_base::badbit);
    EXPECT_EQ(everythingOf(in), std::string(1, '\0'));
    BrokenStreamBuf broken;
    std::istream turnsBad(&broken);
    EXPECT_EQ(everythingOf(turnsBad), std::string(1, '\0'));
}

TEST(StreamUtilReadToEnd, LetsTheExceptionsOfTheStreamPass) {
    BrokenStreamBuf broken;
    std::istream in(&broken);
    in.exceptions(std::ios_base::badbit);
    EXPECT_EQ(thrownBy([&] { everythingOf(in); }), "std::exception: broken");
}

TEST(StreamUtilReadToEnd, ReadsTheSameHoweverTheBytesAreSplit) {
    for (const std::size_t split : {0U, 1U, 40959U, 40960U, 40961U, 49999U, 50000U}) {
        ChoppedStreamBuf chopped(numbered(50000), split);
        std::istream in(&chopped);
        EXPECT_EQ(everythingOf(in), numbered(50000) + '\0') << split;
    }
}

TEST(StreamUtilTake, TakesBytesFromTheBufferOfAStream) {
    std::istringstream in("abcdef");
    std::array<char, 6> bytes{};
    EXPECT_TRUE(StreamUtil::take(in, bytes.data(), 4));
    EXPECT_EQ(std::string_view(bytes.data(), 4), "abcd");
    EXPECT_EQ(in.get(), 'e');
}

TEST(StreamUtilTake, LeavesAStreamWithFewerAlone) {
    std::istringstream in("abc");
    std::array<char, 4> bytes{};
    EXPECT_FALSE(StreamUtil::take(in, bytes.data(), 4));
    EXPECT_EQ(std::string_view(bytes.data(), 1), std::string_view("\0", 1));
    EXPECT_TRUE(in.good());
    EXPECT_EQ(in.get(), 'a');
}

TEST(StreamUtilTake, LeavesAStreamAloneThatHasFailed) {
    std::istringstream in("abc");
    in.setstate(std::ios_base::failbit);
    char byte = 0;
    EXPECT_FALSE(StreamUtil::take(in, &byte, 1));
}

}  // namespace
