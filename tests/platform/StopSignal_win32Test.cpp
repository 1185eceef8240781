#include <qvtp/platform/StopSignal.h>

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>

namespace qvtp_test {
namespace {

using Quovane::Io::StopSignal;

std::atomic<int> handled{0};

BOOL WINAPI handle(DWORD) {
    ++handled;
    return TRUE;
}

/// With a console and a handler of the application's own.
class ConsoleSignals : public ::testing::Test {
  protected:
    void SetUp() override {
        ::FreeConsole();  // of the tests, which a signal would end
        if (!::AllocConsole()) GTEST_SKIP() << "there is no console here";
        ::SetConsoleCtrlHandler(nullptr, FALSE);
        ::SetConsoleCtrlHandler(handle, TRUE);
        handled = 0;
    }
    void TearDown() override {
        ::SetConsoleCtrlHandler(handle, FALSE);
        ::FreeConsole();
    }
    bool press(DWORD key) { return ::GenerateConsoleCtrlEvent(key, 0) != 0; }
};

TEST_F(ConsoleSignals, EndTheWait) {
    StopSignal stop;
    ASSERT_TRUE(press(CTRL_C_EVENT));
    EXPECT_EQ(stop.wait(20000), 2);
    EXPECT_EQ(handled, 0);
}

TEST_F(ConsoleSignals, AreHandledAsBeforeAfterTheLastObject) {
    { const StopSignal stop; }
    ASSERT_TRUE(press(CTRL_C_EVENT));
    for (int i = 0; i < 2000 && handled == 0; ++i) ::Sleep(10);
    EXPECT_EQ(handled, 1);
}

}  // namespace
}  // namespace qvtp_test
