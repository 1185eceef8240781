#include "common/System.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace Quovane::Internal::Qvtp::System {

namespace {

/// The text of one thread, and a pointer to it that goes back to null when the thread's storage is torn down.
class ThreadText {
  public:
    ThreadText();
    ~ThreadText();
    std::string text;
};

thread_local ThreadText* liveText = nullptr;
thread_local bool textGone = false;

ThreadText::ThreadText() {
    liveText = this;
}

ThreadText::~ThreadText() {
    liveText = nullptr;
    textGone = true;
}

}  // namespace

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

const void* currentThreadMark() {
    thread_local char mark = 0;
    return &mark;
}

std::uint32_t currentProcessId() {
    return static_cast<std::uint32_t>(::getpid());
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

File openFile(const std::string& path) {
    return File(std::fopen(path.c_str(), "rbe"));
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

std::string threadText() {
    return liveText != nullptr ? liveText->text : std::string();
}

void setThreadText(const std::string& text) {
    if (textGone) return;
    thread_local ThreadText own;
    own.text = text;
}

struct Mutex::State {
    std::mutex mutex;
};

Mutex::Mutex() : state_(new State) {}

Mutex::~Mutex() = default;

void Mutex::lock() {
    state_->mutex.lock();
}

void Mutex::unlock() {
    state_->mutex.unlock();
}

LastErrorGuard::LastErrorGuard() : errno_(errno), systemError_(0) {}

LastErrorGuard::~LastErrorGuard() {
    errno = errno_;
}

}  // namespace Quovane::Internal::Qvtp::System
