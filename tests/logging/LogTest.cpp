#include "logging/Log.h"

#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/QvPipeException.h>
#include <qvtp/message/QvtpMessage.h>

#include "logging/LogStep.h"
#include "support/LogCapture.h"
#include "support/PipeName.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <new>
#include <stdexcept>
#include <string>

namespace {

using namespace Quovane::Internal::Qvtp;
using qvtp_test::LogCapture;
using qvtp_test::thrownBy;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr LoggingLevel LEVELS[] = {LoggingLevel::OFF, LoggingLevel::ERROR, LoggingLevel::WARN, LoggingLevel::INFO,
                                   LoggingLevel::DEBUG};

/// Sets the last error from inside a message, as composing one may.
std::string disturb() {
    errno = EINVAL;
    return "composed";
}

TEST(Log, IsOffUntilItIsSetUp) {
    EXPECT_EQ(loggingLevel(), LoggingLevel::OFF);
    EXPECT_FALSE(isErrorEnabled());
    EXPECT_FALSE(isCommunicationEnabled(CommunicationLevel::INPUT));
    EXPECT_FALSE(isCommunicationEnabled(CommunicationLevel::OUTPUT));
}

TEST(Log, SaysWhichLevelsAreOn) {
    for (const LoggingLevel level : LEVELS) {
        const LogCapture log(level);
        const int value = static_cast<int>(level);
        EXPECT_EQ(loggingLevel(), level);
        EXPECT_EQ(isErrorEnabled(), value >= 1) << value;
        EXPECT_EQ(isWarnEnabled(), value >= 2) << value;
        EXPECT_EQ(isInfoEnabled(), value >= 3) << value;
        EXPECT_EQ(isDebugEnabled(), value >= 4) << value;
    }
}

TEST(Log, WritesLiteralsAtTheirOwnLevel) {
    const LogCapture log;
    logError("one");
    logWarn("two");
    logInfo("three");
    logDebug("four");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR one", "WARN two", "INFO three", "DEBUG four"));
}

TEST(Log, WritesStringsAtTheirOwnLevel) {
    const LogCapture log;
    logError(std::string("one"));
    logWarn(std::string("two"));
    logInfo(std::string("three"));
    logDebug(std::string("four"));
    EXPECT_THAT(log.messages(), ElementsAre("ERROR one", "WARN two", "INFO three", "DEBUG four"));
}

TEST(Log, WritesComposedMessagesAtTheirOwnLevel) {
    const LogCapture log;
    logError([] { return text("one ", 1); });
    logWarn([] { return "two"; });
    logInfo([] { return text("three ", 3); });
    logDebug([] { return text("four ", 4); });
    EXPECT_THAT(log.messages(), ElementsAre("ERROR one 1", "WARN two", "INFO three 3", "DEBUG four 4"));
}

TEST(Log, WritesNoInfoButOneWarningAtLevelWarn) {
    const LogCapture log(LoggingLevel::WARN);
    logInfo("not this");
    EXPECT_EQ(log.text(), "");
    logWarn("this");
    EXPECT_EQ(log.text().substr(0, 8), "WARN  - ");
    EXPECT_THAT(log.messages(), ElementsAre("WARN this"));
}

TEST(Log, ComposesNoMessageWhoseLevelIsOff) {
    for (const LoggingLevel level : LEVELS) {
        const LogCapture log(level);
        int composed = 0;
        const auto compose = [&] { return text(++composed); };
        logError(compose);
        logWarn(compose);
        logInfo(compose);
        logDebug(compose);
        EXPECT_EQ(composed, static_cast<int>(level));
    }
}

TEST(Log, LeavesTheLastErrorAsItWas) {
    const LogCapture log(LoggingLevel::DEBUG, CommunicationLevel::BOTH);
    errno = ENOENT;
    logError("literal");
    logWarn(disturb);
    logInfo(disturb);
    logDebug(disturb);
    logCommunication(CommunicationLevel::INPUT, "bytes", true);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Log, LeavesTheLastErrorAsItWasWhenTheFileCannotBeWritten) {
    const std::string path = qvtp_test::uniquePipeName("unwritable") + ".tmp";
    std::ofstream(path) << "x";
    std::FILE* const unwritable = std::fopen(path.c_str(), "r");
    ASSERT_NE(unwritable, nullptr);
    using Quovane::Qvtp::QvtpMessage;
    QvtpMessage::setLoggingLevel(unwritable, LoggingLevel::DEBUG, unwritable, CommunicationLevel::BOTH);
    errno = ENOENT;
    logError("literal");
    EXPECT_EQ(errno, ENOENT);
    logError(disturb);
    logCommunication(CommunicationLevel::OUTPUT, "bytes", true);
    EXPECT_EQ(errno, ENOENT);
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    std::fclose(unwritable);
    std::remove(path.c_str());
}

TEST(LogCommunication, TakesBytesAndStrings) {
    const LogCapture log(LoggingLevel::OFF, CommunicationLevel::BOTH);
    logCommunication(CommunicationLevel::INPUT, "abcdef", 3, false);
    logCommunication(CommunicationLevel::OUTPUT, std::string("x\0y", 3), false);
    EXPECT_EQ(log.communication(), std::string("abcx\0y", 6));
}

TEST(LogCommunication, SaysWhichDirectionsAreOn) {
    const CommunicationLevel levels[] = {CommunicationLevel::OFF, CommunicationLevel::INPUT, CommunicationLevel::OUTPUT,
                                         CommunicationLevel::BOTH};
    for (const CommunicationLevel level : levels) {
        const LogCapture log(LoggingLevel::OFF, level);
        const int value = static_cast<int>(level);
        EXPECT_EQ(isCommunicationEnabled(CommunicationLevel::INPUT), value == 1 || value == 3) << value;
        EXPECT_EQ(isCommunicationEnabled(CommunicationLevel::OUTPUT), value == 2 || value == 3) << value;
    }
}

TEST(LogCommunication, DoesNotDependOnTheLevelOfTheDiagnosticLog) {
    const LogCapture log(LoggingLevel::OFF, CommunicationLevel::INPUT);
    logCommunication(CommunicationLevel::INPUT, "bytes", false);
    EXPECT_EQ(log.communication(), "bytes");
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(LogErrorAndThrow, ThrowsTheTextThatItLogs) {
    const LogCapture log;
    using Quovane::Io::IllegalStateException;
    EXPECT_EQ(thrownBy([] { logErrorAndThrow<IllegalStateException>("No."); }), "IllegalStateException: No.");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR No."));
}

TEST(LogErrorAndThrow, GivesTheExceptionItsCode) {
    const LogCapture log;
    using Quovane::Io::QvPipeException;
    EXPECT_EQ(thrownBy([] { logErrorAndThrow<QvPipeException>("No.", 1013); }), "QvPipeException: No. [1013]");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR No."));
}

TEST(LogErrorAndThrow, ThrowsWithTheLogOff) {
    using Quovane::Io::QvPipeException;
    EXPECT_EQ(thrownBy([] { logErrorAndThrow<QvPipeException>("No."); }), "QvPipeException: No.");
}

TEST(LogStep, DropsWhatThereIsNoMemoryFor) {
    EXPECT_TRUE(logStep([] {}));
    EXPECT_FALSE(logStep([] { throw std::bad_alloc(); }));
    EXPECT_FALSE(logStep([] { throw std::length_error("a text that is longer than any can be"); }));
}

}  // namespace
