#include "logging/LogLine.h"

#include "support/Process.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

using namespace Quovane::Internal::Qvtp;
using namespace qvtp_test;
using Quovane::Qvtp::CommunicationLevel;
using Quovane::Qvtp::LoggingLevel;

constexpr std::int64_t TIME = 1480930201000;  // 2016/12/05 09:30:01 UTC

/// Another local time for the length of a test.
class TimeZone {
  public:
    explicit TimeZone(const char* zone) {
        const char* former = std::getenv("TZ");
        if (former != nullptr) former_ = former;
        wasSet_ = former != nullptr;
        set(zone);
    }
    ~TimeZone() { set(wasSet_ ? former_.c_str() : nullptr); }

  private:
    static void set(const char* zone) {
        zone != nullptr ? setEnvironment("TZ", zone) : unsetEnvironment("TZ");
        applyTimeZone();
    }

    bool wasSet_ = false;
    std::string former_;
};

std::string lineOf(LoggingLevel level) {
    return LogLine::format(level, TIME + 123, 42, "id", "text");
}

/// The part of a line that holds the milliseconds.
std::string milliseconds(std::int64_t value) {
    return LogLine::format(LoggingLevel::INFO, TIME + value, 1, "", "").substr(27, 4);
}

TEST(LogLine, HasItsWholeFixedForm) {
    EXPECT_EQ(LogLine::format(LoggingLevel::WARN, TIME + 123, 4711, "call-7", "It happened."),
              "WARN  - 2016/12/05-09:30:01.123 UTC - Thread-4711: call-7 - It happened.- Quovane.SOA.Qvtp\n");
}

TEST(LogLine, BeginsWithTheLevelInFiveCharacters) {
    const std::string rest = " - 2016/12/05-09:30:01.123 UTC - Thread-42: id - text- Quovane.SOA.Qvtp\n";
    EXPECT_EQ(lineOf(LoggingLevel::OFF), "OFF  " + rest);
    EXPECT_EQ(lineOf(LoggingLevel::ERROR), "ERROR" + rest);
    EXPECT_EQ(lineOf(LoggingLevel::WARN), "WARN " + rest);
    EXPECT_EQ(lineOf(LoggingLevel::INFO), "INFO " + rest);
    EXPECT_EQ(lineOf(LoggingLevel::DEBUG), "DEBUG" + rest);
}

TEST(LogLine, PadsMillisecondsWithBlanksToThreePlaces) {
    EXPECT_EQ(milliseconds(0), ".  0");
    EXPECT_EQ(milliseconds(7), ".  7");
    EXPECT_EQ(milliseconds(45), ". 45");
    EXPECT_EQ(milliseconds(123), ".123");
    EXPECT_EQ(milliseconds(999), ".999");
}

TEST(LogLine, LeavesTheCorrelationIdOutWhenThereIsNone) {
    EXPECT_EQ(LogLine::format(LoggingLevel::ERROR, TIME, 9, "", "text"),
              "ERROR - 2016/12/05-09:30:01.  0 UTC - Thread-9:  - text- Quovane.SOA.Qvtp\n");
}

TEST(LogLine, PrintsTheMessageAsItIsWithNoBlankBeforeTheDash) {
    EXPECT_EQ(LogLine::format(LoggingLevel::INFO, TIME, 1, "", "a\n%s b ").substr(46),
              ":  - a\n%s b - Quovane.SOA.Qvtp\n");
}

TEST(LogLine, PrintsThreadIdsUnsigned) {
    EXPECT_NE(LogLine::format(LoggingLevel::INFO, TIME, 4294967295U, "", "").find("Thread-4294967295: "),
              std::string::npos);
}

TEST(LogLine, PrintsTheTimeAsUtcWhateverTheLocalTime) {
    const TimeZone zone("ABC-05:30");
    EXPECT_EQ(lineOf(LoggingLevel::INFO).substr(8, 19), "2016/12/05-09:30:01");
}

TEST(LogLine, PrintsALongMessageAndALongCorrelationIdWhole) {
    const std::string id(300, 'i');
    const std::string message(5000, 'm');
    EXPECT_EQ(LogLine::format(LoggingLevel::INFO, TIME, 1, id, message),
              "INFO  - 2016/12/05-09:30:01.  0 UTC - Thread-1: " + id + " - " + message + "- Quovane.SOA.Qvtp\n");
}

TEST(CommunicationHeader, HasItsWholeFixedFormInLocalTime) {
    const TimeZone zone("ABC-05:30");
    EXPECT_EQ(LogLine::formatCommunicationHeader(CommunicationLevel::INPUT, TIME + 7, "call-7"),
              "2016-12-05 15:00:01.  7 [INPUT ] call-7" + std::string(44, ' ') + "\n");
}

TEST(CommunicationHeader, NamesTheDirectionInTenCharacters) {
    const TimeZone zone("UTC0");
    const std::string time = "2016-12-05 09:30:01. 45";
    const std::string blanks(50, ' ');
    EXPECT_EQ(LogLine::formatCommunicationHeader(CommunicationLevel::OFF, TIME + 45, ""),
              time + " [OFF   ] " + blanks + "\n");
    EXPECT_EQ(LogLine::formatCommunicationHeader(CommunicationLevel::INPUT, TIME + 45, ""),
              time + " [INPUT ] " + blanks + "\n");
    EXPECT_EQ(LogLine::formatCommunicationHeader(CommunicationLevel::OUTPUT, TIME + 45, ""),
              time + " [OUTPUT] " + blanks + "\n");
}

TEST(CommunicationHeader, PadsTheCorrelationIdToFiftyCharactersAndCutsNoneOff) {
    const TimeZone zone("UTC0");
    const std::string start = "2016-12-05 09:30:01.  0 [OUTPUT] ";
    for (const std::size_t length : {1U, 49U, 50U, 51U, 200U}) {
        const std::string id(length, 'i');
        const std::string padding(length < 50 ? 50 - length : 0, ' ');
        EXPECT_EQ(LogLine::formatCommunicationHeader(CommunicationLevel::OUTPUT, TIME, id),
                  start + id + padding + "\n");
    }
}

}  // namespace
