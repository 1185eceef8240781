#include "support/Child.h"

#include "support/Watchdog.h"

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

namespace qvtp_test {

namespace {

/// Whether every other thread of this process sleeps, as /proc says it.
bool othersSleep() {
    const std::string self = std::to_string(::syscall(SYS_gettid));
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == self) continue;
        std::ifstream file(task.path() / "stat");
        std::string line;
        std::getline(file, line);
        const std::size_t name = line.rfind(") ");
        if (name != std::string::npos && line[name + 2] != 'S') return false;
    }
    return true;
}

}  // namespace

int startChild(const std::function<int()>& action) {
    // A thread that is just allocating would leave the lock of a sanitizer's allocator taken in the child.
    eventually(othersSleep);
    return startChildAtOnce(action);
}

int startChildAtOnce(const std::function<int()>& action) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::alarm(60);
    int result = 255;
    try {
        result = action();
    } catch (...) {
        ::_exit(result);
    }
    ::_exit(result);
}

int resultOf(int child) {
    int status = 0;
    if (::waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int resultInChild(const std::function<int()>& action) {
    return resultOf(startChild(action));
}

}  // namespace qvtp_test
