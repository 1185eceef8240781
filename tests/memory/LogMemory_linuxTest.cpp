#include "logging/Log.h"

#include <qvtp/io/IllegalStateException.h>
#include <qvtp/message/QvtpMessage.h>

#include "support/LogCapture.h"
#include "support/OutOfMemory.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace qvtp_test {
namespace {

using namespace Quovane::Internal::Qvtp;
using ::testing::IsEmpty;

// Longer than what a string holds without memory of its own.
const char LITERAL[] = "A text that is too long to fit into a string object itself.";

/// Every allocation of a log call fails in turn: the line is there whole or not at all, and nothing is thrown.
void expectDropped(const std::function<void()>& call, const std::string& line) {
    const std::string id = "an id that is as long as the ids of some applications are";
    Quovane::Qvtp::QvtpMessage::setLogCorrelationId(id);
    long n = 1;
    for (bool failed = true; failed; ++n) {
        LogCapture log(LogCapture::LoggingLevel::DEBUG, LogCapture::CommunicationLevel::both);
        const std::string thrown = thrownBy([&] {
            const OutOfMemory memory(n, OutOfMemory::FROM_THEN_ON);
            call();
            failed = memory.hasFailed();
        });
        EXPECT_EQ(thrown, "nothing") << n;
        const std::string written = log.text() + log.communication();
        if (failed) {
            EXPECT_THAT(written, IsEmpty()) << n;
        } else {
            EXPECT_THAT(written, ::testing::HasSubstr(line));
        }
    }
    EXPECT_GT(n, 2);
    Quovane::Qvtp::QvtpMessage::setLogCorrelationId("");
}

TEST(LogWithoutMemory, DropsALiteral) {
    expectDropped([] { logError(LITERAL); }, LITERAL);
    expectDropped([] { logWarn(LITERAL); }, LITERAL);
    expectDropped([] { logInfo(LITERAL); }, LITERAL);
    expectDropped([] { logDebug(LITERAL); }, LITERAL);
}

TEST(LogWithoutMemory, DropsAText) {
    const std::string text = LITERAL;
    expectDropped([&] { logError(text); }, LITERAL);
    expectDropped([&] { logDebug(text); }, LITERAL);
}

TEST(LogWithoutMemory, DropsAComposedLineInsteadOfCuttingIt) {
    const auto compose = [] { return text(LITERAL, 1234567, LITERAL); };
    const std::string line = std::string(LITERAL) + "1234567" + LITERAL;
    expectDropped([&] { logError(compose); }, line);
    expectDropped([&] { logWarn(compose); }, line);
    expectDropped([&] { logInfo(compose); }, line);
    expectDropped([&] { logDebug(compose); }, line);
}

TEST(LogWithoutMemory, DropsARecordWithItsHeader) {
    expectDropped([] { logCommunication(CommunicationLevel::INPUT, "abc", 3, true); }, "abc");
}

TEST(LogWithoutMemory, StillThrowsWhatIsLoggedAndThrown) {
    const std::string message = LITERAL;
    LogCapture log;
    const std::string thrown = thrownBy([&] {
        const OutOfMemory memory(1, OutOfMemory::ONCE);  // that of the line
        logErrorAndThrow<Quovane::Io::IllegalStateException>(message);
    });
    EXPECT_EQ(thrown, "IllegalStateException: " + message);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(LogWithoutMemory, IsOffWithoutHavingBeenSetUp) {
    bool failed = true;
    {
        const OutOfMemory memory;
        logError(LITERAL);
        logCommunication(CommunicationLevel::OUTPUT, LITERAL, sizeof LITERAL, true);
        failed = memory.hasFailed();
    }
    EXPECT_FALSE(failed);
}

}  // namespace
}  // namespace qvtp_test
