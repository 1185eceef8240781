#include "common/System.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace Quovane::Internal::Qvtp::System {

std::int64_t wallClockMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::int64_t monotonicMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::uint32_t currentThreadId() {
    // Not cached: a cached id would be the parent's in a forked child.
    return static_cast<std::uint32_t>(::syscall(SYS_gettid));
}

void sleepMs(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

std::optional<std::string> environmentVariable(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return value;
}

bool fileExists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

std::tm utcTime(std::time_t seconds) {
    std::tm result{};
    ::gmtime_r(&seconds, &result);
    return result;
}

std::tm localTime(std::time_t seconds) {
    std::tm result{};
    ::localtime_r(&seconds, &result);
    return result;
}

LastErrorGuard::LastErrorGuard() : errno_(errno), systemError_(0) {}

LastErrorGuard::~LastErrorGuard() {
    errno = errno_;
}

}  // namespace Quovane::Internal::Qvtp::System
