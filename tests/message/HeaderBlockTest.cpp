#include "message/HeaderBlock.h"

#include "message/QvtpHeader.h"
#include "support/ChoppedStreamBuf.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <iterator>
#include <memory_resource>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Quovane::Internal::Qvtp::HeaderBlock;
using Quovane::Internal::Qvtp::QvtpHeader;
using Quovane::Soa::Common::Xml::Utf8String;
using qvtp_test::ChoppedStreamBuf;
using qvtp_test::LogCapture;
using qvtp_test::thrownBy;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HeaderBlockTest : public ::testing::Test {
  protected:
    std::string written() const {
        std::string text;
        block_.write(text, converter_);
        return text;
    }
    /// Reads the lines into the block and returns what is left of them.
    std::string read(const std::string& lines) {
        std::istringstream in(lines);
        block_.read(in, converter_);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    Utf8String converter_;
    HeaderBlock block_;
};

using HeaderBlockAccess = HeaderBlockTest;
using HeaderBlockWriting = HeaderBlockTest;
using HeaderBlockReading = HeaderBlockTest;

TEST_F(HeaderBlockAccess, FindsNothingInAnEmptyBlock) {
    EXPECT_EQ(block_.getHeader("X"), "");
    EXPECT_THAT(block_.getHeaders("X"), IsEmpty());
    EXPECT_THAT(block_.getHeaderNames(), IsEmpty());
}

TEST_F(HeaderBlockAccess, MatchesNamesWithoutRegardToCaseAndWhiteSpaceAround) {
    block_.addHeader("Content-Length", "12");
    for (const char* name : {"CONTENT-LENGTH", "content-length", " Content-Length\t", "\r\ncOnTeNt-LeNgTh\r\n"}) {
        EXPECT_EQ(block_.getHeader(name), "12") << name;
        EXPECT_THAT(block_.getHeaders(name), ElementsAre("12")) << name;
    }
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("Content-Length"));
}

TEST_F(HeaderBlockAccess, TakesOnlyBlankTabAndLineEndsForWhiteSpaceAroundAName) {
    block_.addHeader("X", "1");
    EXPECT_EQ(block_.getHeader("\vX"), "");
    EXPECT_EQ(block_.getHeader("X\f"), "");
    EXPECT_EQ(block_.getHeader("X Y"), "");
}

TEST_F(HeaderBlockAccess, LeavesBytesAbove127AsTheyAre) {
    block_.addHeader("\xE4", "small");
    block_.addHeader("\xC4", "large");
    EXPECT_EQ(block_.getHeader("\xE4"), "small");
    EXPECT_EQ(block_.getHeader("\xC4"), "large");
}

TEST_F(HeaderBlockAccess, TreatsTheEmptyNameAsAnyOther) {
    block_.addHeader(" \t", "1");
    EXPECT_EQ(block_.getHeader(""), "1");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre(""));
    block_.removeHeader("\r\n");
    EXPECT_THAT(block_.getHeaderNames(), IsEmpty());
}

TEST_F(HeaderBlockAccess, GivesTheFirstOfSeveralValues) {
    block_.addHeader("X", "a, b");
    EXPECT_EQ(block_.getHeader("X"), "a");
    EXPECT_THAT(block_.getHeaders("X"), ElementsAre("a", "b"));
}

TEST_F(HeaderBlockAccess, GivesNothingForAHeaderWithoutValues) {
    block_.addHeader("X", "");
    EXPECT_EQ(block_.getHeader("X"), "");
    EXPECT_THAT(block_.getHeaders("X"), IsEmpty());
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("X"));
}

TEST_F(HeaderBlockAccess, RemovesAHeaderUnderAnySpelling) {
    block_.addHeader("X-A", "1");
    block_.addHeader("X-B", "2");
    block_.removeHeader(" x-a ");
    block_.removeHeader("absent");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("X-B"));
}

TEST_F(HeaderBlockAccess, ForgetsTheValuesOfARemovedHeader) {
    block_.addHeader("x-a", "1");
    block_.removeHeader("X-A");
    block_.addHeader("X-a", "2");
    EXPECT_EQ(written(), "X-a: 2\r\n");
}

TEST_F(HeaderBlockAccess, ListsNamesInTheOrderOfTheirUpperCasedForm) {
    for (const char* name : {"b", "A", "_", "a1", "B2", "Z"}) block_.addHeader(name, "1");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("A", "a1", "b", "B2", "Z", "_"));
}

TEST_F(HeaderBlockAccess, OrdersKeysAsUnsignedBytes) {
    for (const char* name : {"\xC3\xA4", "z", "\x7F"}) block_.addHeader(name, "1");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("z", "\x7F", "\xC3\xA4"));
}

TEST_F(HeaderBlockWriting, KeepsTheFirstSpellingWhenValuesAreAddedAndTakesTheLastWhenSet) {
    block_.addHeader("x-a", "1");
    block_.addHeader("X-A", "2");
    EXPECT_EQ(written(), "x-a: 1,2\r\n");
    block_.setHeader("X-A", "3");
    EXPECT_EQ(written(), "X-A: 3\r\n");
    block_.addHeader("x-a", "4");
    EXPECT_EQ(written(), "X-A: 3,4\r\n");
}

TEST_F(HeaderBlockWriting, WritesHeadersInKeyOrderWhateverTheOrderOfAddition) {
    block_.addHeader("User-Agent", "agent");
    block_.addHeader("Content-Length", "5");
    block_.setHeader("Server", "server");
    EXPECT_EQ(written(), "Content-Length: 5\r\nServer: server\r\nUser-Agent: agent\r\n");
}

TEST_F(HeaderBlockWriting, JoinsValuesWithCommasWithoutBlanks) {
    block_.addHeader("Content-Length", "12");
    block_.addHeader("X-Ids", "a, b");
    EXPECT_EQ(written(), "Content-Length: 12\r\nX-Ids: a,b\r\n");
}

TEST_F(HeaderBlockWriting, WritesAHeaderWithoutValues) {
    block_.setHeader("X", " ");
    EXPECT_EQ(written(), "X: \r\n");
}

TEST_F(HeaderBlockWriting, WritesNothingForAnEmptyBlock) {
    EXPECT_EQ(written(), "");
}

TEST_F(HeaderBlockWriting, AppendsToWhatIsThere) {
    block_.addHeader("X", "1");
    std::string text = "start\r\n";
    block_.write(text, converter_);
    EXPECT_EQ(text, "start\r\nX: 1\r\n");
}

TEST_F(HeaderBlockWriting, EncodesEveryValueButNoName) {
    block_.addHeader("N\xE4", "\xE4,b");
    EXPECT_EQ(written(), "N\xE4: \xC3\xA4,b\r\n");
}

TEST_F(HeaderBlockWriting, LetsNoValueEndItsLine) {
    block_.addHeader("X", std::string("a\r\nInjected: 1\0b", 16));
    EXPECT_EQ(written(), "X: a  Injected: 1 b\r\n");
}

TEST_F(HeaderBlockWriting, TrimsTheNameItStores) {
    block_.addHeader(" X \r\n", "1");
    block_.setHeader("\tY ", "2");
    EXPECT_EQ(written(), "X: 1\r\nY: 2\r\n");
}

TEST_F(HeaderBlockReading, EndsAfterTheEmptyLine) {
    EXPECT_EQ(read("A: 1\r\nB: 2\r\n\r\nbody"), "body");
    EXPECT_EQ(written(), "A: 1\r\nB: 2\r\n");
}

TEST_F(HeaderBlockReading, TakesLinesThatEndInALineFeedAlone) {
    EXPECT_EQ(read("A: 1\nB: 2\n\nbody"), "body");
    EXPECT_EQ(written(), "A: 1\r\nB: 2\r\n");
}

TEST_F(HeaderBlockReading, ReadsAnEmptyBlock) {
    EXPECT_EQ(read("\r\nbody"), "body");
    EXPECT_THAT(block_.getHeaderNames(), IsEmpty());
}

TEST_F(HeaderBlockReading, MakesOneHeaderOfSeveralLinesUnderTheFirstSpelling) {
    read("Accept-X: 1\r\nOther: 0\r\naccept-x: 2, 3\r\n\r\n");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("Accept-X", "Other"));
    EXPECT_THAT(block_.getHeaders("ACCEPT-X"), ElementsAre("1", "2", "3"));
    EXPECT_EQ(block_.getHeader("Accept-X"), "1");
}

TEST_F(HeaderBlockReading, SplitsValuesAtTheirCommas) {
    read("X: a, b\r\n\r\n");
    EXPECT_THAT(block_.getHeaders("X"), ElementsAre("a", "b"));
}

TEST_F(HeaderBlockReading, CutsTheLineAtItsFirstColon) {
    read("X:a:b\r\nY :\t c \t\r\n\r\n");
    EXPECT_EQ(block_.getHeader("X"), "a:b");
    EXPECT_EQ(block_.getHeader("Y"), "c");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("X", "Y"));
}

TEST_F(HeaderBlockReading, ListsAHeaderWithoutValues) {
    read("X:\r\nY: \t \r\n\r\n");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("X", "Y"));
    EXPECT_EQ(block_.getHeader("X"), "");
    EXPECT_THAT(block_.getHeaders("Y"), IsEmpty());
}

TEST_F(HeaderBlockReading, TakesALineWithoutColonForAHeaderWithoutValues) {
    read("No colon here\r\nX: 1\r\n\r\n");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("No colon here", "X"));
    EXPECT_THAT(block_.getHeaders("No colon here"), IsEmpty());
}

TEST_F(HeaderBlockReading, TakesALineThatBeginsWithItsColonForTheEmptyName) {
    read(": 1\r\n\r\n");
    EXPECT_EQ(block_.getHeader(""), "1");
}

TEST_F(HeaderBlockReading, JoinsContinuationLinesWithOneBlank) {
    read("X: first\r\n\tsecond\r\nY: 1\r\n  2 \t\r\n \t3\r\n\r\n");
    EXPECT_THAT(block_.getHeaders("X"), ElementsAre("first second"));
    EXPECT_THAT(block_.getHeaders("Y"), ElementsAre("1 2 3"));
}

TEST_F(HeaderBlockReading, PutsNoBlankBeforeTheFirstPieceOfAContinuedValue) {
    read("X:\r\n first\r\n\r\n");
    EXPECT_EQ(block_.getHeader("X"), "first");
}

TEST_F(HeaderBlockReading, SplitsTheValueOnlyAfterItWasJoined) {
    read("X: a,\r\n b,\r\n\tc d\r\n e\r\n\r\n");
    EXPECT_THAT(block_.getHeaders("X"), ElementsAre("a", "b", "c d e"));
}

TEST_F(HeaderBlockReading, TakesALineOfBlanksForAContinuation) {
    EXPECT_EQ(read("X: a\r\n \t\r\n b\r\n\r\nbody"), "body");
    EXPECT_EQ(block_.getHeader("X"), "a  b");
}

TEST_F(HeaderBlockReading, TakesNoLineThatBeginsOtherwiseForAContinuation) {
    read("X: a\r\n\rY: b\r\n\vZ: c\r\n\r\n");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("\vZ", "X", "Y"));
    EXPECT_THAT(block_.getHeaders("X"), ElementsAre("a"));
}

TEST_F(HeaderBlockReading, ContinuesAHeaderWithoutColon) {
    read("X\r\n 1\r\n\r\n");
    EXPECT_EQ(block_.getHeader("X"), "1");
}

TEST_F(HeaderBlockReading, TakesAFirstLineThatBeginsWithABlankForAHeader) {
    read(" X: 1\r\n\r\n");
    EXPECT_EQ(block_.getHeader("X"), "1");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("X"));
}

TEST_F(HeaderBlockReading, DecodesValuesAndNoNames) {
    read("N\xE4: \xE4\r\nU: \xC3\xA4\r\n\r\n");
    EXPECT_THAT(block_.getHeaderNames(), ElementsAre("N\xE4", "U"));
    EXPECT_EQ(block_.getHeader("N\xE4"), "\xC3\xA4");
    EXPECT_EQ(block_.getHeader("U"), "\xC3\xA4");
}

TEST_F(HeaderBlockReading, ReadsLinesOfAnyLength) {
    const std::string value(10000, 'v');
    read("X: " + value + "\r\n\r\n");
    EXPECT_EQ(block_.getHeader("X"), value);
}

/// Reads the lines after a start line, cut at every place, and expects the same text and the same rest. What comes with
/// the start line is in the stream's area by then.
void expectTheSameWhereverItIsCut(const std::string& lines, const std::string& expected) {
    const Utf8String converter;
    const std::string start = "start\n";
    for (std::size_t cut = 0; cut <= start.size() + lines.size(); ++cut) {
        for (const std::size_t step : {std::size_t{1}, std::size_t{7}, ChoppedStreamBuf::NEVER}) {
            ChoppedStreamBuf chopped(start + lines, cut, step);
            std::istream in(&chopped);
            std::string line;
            std::getline(in, line);
            HeaderBlock block;
            block.read(in, converter);
            std::string text;
            block.write(text, converter);
            EXPECT_EQ(text, expected) << cut << " " << step;
            EXPECT_EQ(chopped.left(), "rest") << cut << " " << step;
        }
    }
}

TEST_F(HeaderBlockReading, ReadsTheSameWhereverTheLinesAreCut) {
    expectTheSameWhereverItIsCut("A-name: a,\r\n b\r\n\tc\r\nOther: \xE4\r\n\r\nrest",
                                 "A-name: a,b c\r\nOther: \xC3\xA4\r\n");
    expectTheSameWhereverItIsCut("B: 2 , 3\nA: 1\r\nb:4\r\n\r\nrest", "A: 1\r\nB: 2,3,4\r\n");
    expectTheSameWhereverItIsCut("\r\nrest", "");
    expectTheSameWhereverItIsCut("\nrest", "");
    expectTheSameWhereverItIsCut("\r\r\n\tC\nA\xE4: 1\n\nrest", ": C\r\nA\xE4: 1\r\n");
    expectTheSameWhereverItIsCut(" A: 1\n\r\nrest", "A: 1\r\n");
    expectTheSameWhereverItIsCut("x\n\nrest", "x: \r\n");
}

TEST_F(HeaderBlockReading, ThrowsWhenTheStreamEndsBeforeTheEmptyLine) {
    for (const char* lines : {"", "A", "A: 1", "A: 1\r\n", "A: 1\r\n 2", "A: 1\r\n\r"}) {
        EXPECT_EQ(thrownBy([&] { read(lines); }),
                  "InterruptedException: Reached the stream end-of-file before the expected new line.")
            << lines;
    }
}

TEST_F(HeaderBlockReading, RecordsEveryLineAsReadInTheCommunicationLog) {
    {
        const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::INPUT);
        read("X:  a \r\n\tcontinued\r\nno colon\nY: \xE4\r\n\r\n");
        EXPECT_EQ(log.communication(), "X:  a \n\tcontinued\nno colon\nY: \xE4\n");
    }
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::INPUT);
    read("B:  a , b\r\nno colon\nA: c\r\n\r\n");  // as a whole
    EXPECT_EQ(log.communication(), "B:  a , b\nno colon\nA: c\n");
}

TEST_F(HeaderBlockReading, RecordsNothingWhenOnlyOutputIsRecorded) {
    const LogCapture log(LogCapture::LoggingLevel::DEBUG, LogCapture::CommunicationLevel::OUTPUT);
    read("X: a\r\n\r\n");
    EXPECT_EQ(log.communication(), "");
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(HeaderBlockWriting, WritesAHeaderTheSameHoweverItCameToBe) {
    const std::vector<std::pair<std::string, std::string>> headers = {
        {"Plain", "value"},  {"Trimmed ", " value "}, {"Several", "a,b"}, {"Empty", ""},
        {"Blank", " \t"},    {"Comma", "a,"},         {"Tab", "a\tb"},    {"Umlaut", "\xE4"},
        {"LineEnd", "a\rb"}, {" \vOdd\f ", "value"},  {"\vTab", "value"}};
    for (const auto& [name, value] : headers) {
        HeaderBlock added, set, joined;
        added.addHeader(name, value);
        set.setHeader(name, "another");
        set.setHeader(name, value);
        joined.addHeader(name, "");
        joined.addHeader(name, value);
        QvtpHeader header;
        header.setName(name);
        header.setValue(value);
        std::string expected = header.getName() + ": ";
        for (const std::string& one : header.getValues()) {
            std::string sent;
            converter_.encode(one, sent);
            expected += (expected.back() == ' ' ? "" : ",") + sent;
        }
        for (const HeaderBlock* block : {&added, &set, &joined}) {
            std::string text;
            block->write(text, converter_);
            EXPECT_EQ(text, expected + "\r\n");
        }
    }
}

TEST_F(HeaderBlockAccess, KeepsItsTextsWhateverBecomesOfThoseItWasGiven) {
    std::string name = "A-name-that-is-longer-than-any-short-string";
    std::string value = "first, second, a value that is longer than any short string";
    block_.addHeader(name, value);
    name.assign(name.size(), 'x');
    value.assign(value.size(), 'x');
    for (int i = 0; i < 100; ++i) block_.addHeader("Another-" + std::to_string(i), std::to_string(i));
    EXPECT_THAT(block_.getHeaders("a-NAME-that-is-longer-than-any-short-string"),
                ElementsAre("first", "second", "a value that is longer than any short string"));
    block_.removeHeader("Another-50");
    EXPECT_EQ(block_.getHeader("Another-50"), "");
    EXPECT_EQ(block_.getHeader("Another-51"), "51");
}

TEST_F(HeaderBlockReading, GivesBackTheNamesAndValuesThatWereWritten) {
    block_.addHeader("X-Ids", "a, b");
    block_.addHeader("empty", "");
    block_.addHeader("Text", "two words \xC3\xA4");
    HeaderBlock copy;
    std::istringstream in(written() + "\r\n");
    copy.read(in, converter_);
    EXPECT_EQ(copy.getHeaderNames(), block_.getHeaderNames());
    for (const std::string& name : block_.getHeaderNames()) EXPECT_EQ(copy.getHeaders(name), block_.getHeaders(name));
}

/// That resource is the application's, and need not be for several threads.
TEST_F(HeaderBlockReading, TakesNoMemoryFromTheDefaultResourceOfTheApplication) {
    std::string lines;
    for (int i = 0; i < 20; ++i) lines += "H" + std::to_string(i) + ": a, b\r\n";
    std::pmr::memory_resource* const before = std::pmr::set_default_resource(std::pmr::null_memory_resource());
    HeaderBlock block;
    std::istringstream in(lines + "\r\n");
    block.read(in, converter_);
    std::pmr::set_default_resource(before);
    EXPECT_EQ(block.getHeaderNames().size(), 20U);
}

// ---- Very many headers, which a peer may send ----

constexpr int VERY_MANY = 100000;

/// "H-099999", so that names have the order of their numbers.
std::string nameOf(int number) {
    const std::string digits = std::to_string(number);
    return "H-" + std::string(6 - digits.size(), '0') + digits;
}

/// Of the processor: what else the machine does then does not count.
template <typename Work>
double processorSeconds(const Work& work) {
    const std::clock_t begin = std::clock();
    work();
    return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
}

/// What a name is compared with others for: it shows in the time, of which a test that is quadratic here needs minutes.
TEST_F(HeaderBlockReading, SortsVeryManyHeadersThatComeInReverse) {
    std::string lines;
    for (int i = VERY_MANY - 1; i >= 0; --i) lines += nameOf(i) + ": " + std::to_string(i) + "\r\n";
    const double seconds = processorSeconds([&] { EXPECT_EQ(read(lines + "\r\nREST"), "REST"); });
    EXPECT_LT(seconds, 20);
    const std::vector<std::string> names = block_.getHeaderNames();
    ASSERT_EQ(names.size(), static_cast<std::size_t>(VERY_MANY));
    for (int i = 0; i < VERY_MANY; ++i) ASSERT_EQ(names[static_cast<std::size_t>(i)], nameOf(i));
    EXPECT_EQ(block_.getHeader(nameOf(0)), "0");
    EXPECT_EQ(block_.getHeader(nameOf(VERY_MANY - 1)), std::to_string(VERY_MANY - 1));
}

TEST_F(HeaderBlockReading, JoinsVeryManyHeadersOfFewNamesInTheOrderOfTheirArrival) {
    constexpr int NAMES = 10;
    std::string lines;
    for (int i = 0; i < VERY_MANY; ++i) {
        const char first = i % 2 == 0 ? 'h' : 'H';  // without regard to case
        lines += first + nameOf(NAMES - 1 - i % NAMES).substr(1) + ": " + std::to_string(i) + "\r\n";
    }
    EXPECT_LT(processorSeconds([&] { read(lines + "\r\n"); }), 20);
    ASSERT_EQ(block_.getHeaderNames().size(), static_cast<std::size_t>(NAMES));
    for (int n = 0; n < NAMES; ++n) {
        const char first = (NAMES - 1 - n) % 2 == 0 ? 'h' : 'H';  // the spelling that came first
        EXPECT_EQ(block_.getHeaderNames()[static_cast<std::size_t>(n)], first + nameOf(n).substr(1));
        const std::vector<std::string> values = block_.getHeaders(nameOf(n));
        ASSERT_EQ(values.size(), static_cast<std::size_t>(VERY_MANY / NAMES));
        for (int i = 0; i < VERY_MANY / NAMES; ++i) {
            ASSERT_EQ(values[static_cast<std::size_t>(i)], std::to_string(NAMES - 1 - n + i * NAMES));
        }
    }
}

}  // namespace
