#include "common/System.h"
#include "support/Child.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <thread>

namespace qvtp_test {
namespace {

namespace System = Quovane::Internal::Qvtp::System;

bool knowsItself() {
    return System::currentProcessId() == static_cast<std::uint32_t>(::syscall(SYS_getpid));
}

TEST(SystemProcessId, IsThatOfAForkedChildAndOfItsOwnChild) {
    ASSERT_TRUE(knowsItself());
    EXPECT_EQ(resultInChild([] {
                  if (!knowsItself()) return 1;
                  return resultInChild([] { return knowsItself() && knowsItself() ? 0 : 2; });
              }),
              0);
    EXPECT_TRUE(knowsItself());
}

TEST(SystemProcessId, IsThatOfAChildThatTheCLibraryKnowsNothingOf) {
    ASSERT_TRUE(knowsItself());
    const auto child = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    if (child == 0) ::_exit(knowsItself() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

/// Uses the text of its thread when that has gone already.
struct LateUse {
    std::string* seen = nullptr;
    ~LateUse() {
        System::setThreadText(std::string(1000, 'b'));
        *seen = System::threadText();
    }
};

TEST(SystemThreadText, IsNotUsedAnyMoreWhenTheThreadHasTornItDown) {
    std::string seen = "not asked";
    std::thread([&] {
        thread_local LateUse late;  // is made before the text, and so goes after it
        late.seen = &seen;
        System::setThreadText(std::string(100, 'a'));
    }).join();
    EXPECT_EQ(seen, "");
}

}  // namespace
}  // namespace qvtp_test
