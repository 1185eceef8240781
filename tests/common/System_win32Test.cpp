#include "common/System.h"

#include "common/RecursiveMutex.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>

namespace {

namespace System = Quovane::Internal::Qvtp::System;

TEST(SystemOnWindows, PutsBothLastErrorsBack) {
    errno = ENOENT;
    ::SetLastError(ERROR_PIPE_BUSY);
    {
        const System::LastErrorGuard guard;
        errno = EINVAL;
        ::SetLastError(ERROR_SUCCESS);
    }
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_PIPE_BUSY));
}

TEST(SystemOnWindows, FindsAFileWhoseNameIsInNoCodePage) {
    const wchar_t name[] = L"qvtp-\u00E4\u0416\u4E2D.tmp";
    const HANDLE file =
        ::CreateFileW(name, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(System::fileExists("qvtp-\xC3\xA4\xD0\x96\xE4\xB8\xAD.tmp"));
    ::CloseHandle(file);
    EXPECT_FALSE(System::fileExists("qvtp-\xC3\xA4\xD0\x96\xE4\xB8\xAD.tmp"));
}

TEST(SystemOnWindows, FindsNoFileOfANameThatIsNotUtf8) {
    EXPECT_FALSE(System::fileExists("\xFF\xFE"));
    EXPECT_FALSE(System::fileExists(""));
}

TEST(SystemOnWindows, GivesEnvironmentVariablesInUtf8) {
    ::SetEnvironmentVariableW(L"QVTP_TEST_VARIABLE", L"\u00E4\u0416\u4E2D");
    EXPECT_EQ(System::environmentVariable("QVTP_TEST_VARIABLE"), "\xC3\xA4\xD0\x96\xE4\xB8\xAD");
    ::SetEnvironmentVariableW(L"QVTP_TEST_VARIABLE", nullptr);
    EXPECT_EQ(System::environmentVariable("QVTP_TEST_VARIABLE"), std::nullopt);
}

TEST(SystemOnWindows, TakesTheThreadIdFromTheSystem) {
    EXPECT_EQ(System::currentThreadId(), ::GetCurrentThreadId());
}

TEST(SystemOnWindows, GivesTheTimeOfTheSystem) {
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    const std::int64_t ticks = (static_cast<std::int64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    const std::int64_t expectedMs = ticks / 10000 - 11644473600000;  // from 100 ns since 1601 to ms since 1970
    EXPECT_NEAR(static_cast<double>(System::wallClockMs()), static_cast<double>(expectedMs), 2000.0);
}

TEST(SystemOnWindows, TakesOverAMutexWhoseThreadHasGone) {
    // At the end of a process all threads but one disappear, wherever they are.
    System::Mutex mutex;
    std::thread([&] { mutex.lock(); }).join();
    mutex.lock();
    mutex.unlock();
}

TEST(SystemOnWindows, TakesOverARecursiveMutexWhoseThreadHasGone) {
    Quovane::Internal::Qvtp::RecursiveMutex mutex;
    std::thread([&] { mutex.lock(); }).join();
    mutex.lock();
    mutex.unlock();
    std::thread([&] {
        mutex.lock();
        mutex.unlock();
    }).join();
}

TEST(SystemOnWindows, GivesTheTextOfAThreadWithoutATraceInTheLastError) {
    std::thread([] {
        ::SetLastError(ERROR_PIPE_BUSY);
        System::setThreadText("text");
        EXPECT_EQ(System::threadText(), "text");
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_PIPE_BUSY));
    }).join();
}

}  // namespace
