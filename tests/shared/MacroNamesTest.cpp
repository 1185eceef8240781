// An application's command line, or <windows.h>, may define macros with the names of levels.
#define DEBUG 7
#define ERROR 8

#include <qvtp/qvtp.h>

#include "support/TemporaryFile.h"

#include <gtest/gtest.h>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

TEST(MacroNames, OfLevelsBreakNoHeaderAndAreTheSameAfterwards) {
    EXPECT_EQ(DEBUG, 7);
    EXPECT_EQ(ERROR, 8);
    std::FILE* const file = temporaryFile();
    QvtpMessage::setLoggingLevel(file, static_cast<LoggingLevel>(4), nullptr, CommunicationLevel::OFF);
    QvtpServer::ServerOptions option = QvtpServer::SERVER_NAME;
    QvtpClient().getIntegerOption(static_cast<QvtpClient::ClientOptions>(option + 1));
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    std::rewind(file);
    char line[200] = {};
    EXPECT_NE(std::fgets(line, sizeof line, file), nullptr);
    EXPECT_EQ(std::string(line).rfind("ERROR - ", 0), 0U) << line;
    std::fclose(file);
}

}  // namespace
}  // namespace qvtp_test
