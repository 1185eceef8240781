#include "logging/Log.h"

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <string>

namespace qvtp_test {
namespace {

using namespace Quovane::Internal::Qvtp;

TEST(LogOnWindows, LeavesTheLastErrorOfTheSystemAsItWas) {
    const LogCapture log(LoggingLevel::DEBUG, CommunicationLevel::BOTH);
    ::SetLastError(ERROR_IO_PENDING);
    logDebug("literal");
    logDebug([] {
        ::SetLastError(ERROR_SUCCESS);
        return std::string("composed");
    });
    logCommunication(CommunicationLevel::INPUT, "bytes", true);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
    EXPECT_EQ(log.messages().size(), 2U);
}

TEST(LogOnWindows, LeavesItAlsoInTheFirstCallOfTheProcess) {
    ::SetLastError(ERROR_IO_PENDING);
    logDebug("literal");
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
}

}  // namespace
}  // namespace qvtp_test
