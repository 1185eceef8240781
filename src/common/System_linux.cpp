#include "common/System.h"

#include <pthread.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <new>
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

using ProcessId = std::atomic<std::uint32_t>;

/// Null before the first attempt to make it.
std::atomic<ProcessId*> keptProcessId{nullptr};

/// Stands for a place that could not be made.
ProcessId noPlace{0};

/// A place that holds 0 in every child of this process, however that child is made: the kernel empties its page. Null
/// if the kernel cannot do that.
ProcessId* makePlaceForProcessId() {
    const LastErrorGuard lastError;
    constexpr std::size_t SIZE = sizeof(ProcessId);
    void* const page = ::mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return nullptr;
    // Some emulators accept any advice and follow none: they are known by an advice that does not exist.
    const bool isEmptiedInChildren = ::madvise(page, SIZE, -1) != 0 && ::madvise(page, SIZE, MADV_WIPEONFORK) == 0;
    if (isEmptiedInChildren) return new (page) ProcessId(0);
    ::munmap(page, SIZE);
    return nullptr;
}

/// Made without a lock, which a fork could leave locked in the child. Two threads may both make one: the first counts.
ProcessId& placeForProcessId() {
    if (ProcessId* const kept = keptProcessId.load(std::memory_order_acquire)) return *kept;
    ProcessId* const made = makePlaceForProcessId();
    ProcessId* expected = nullptr;
    ProcessId* const wanted = made != nullptr ? made : &noPlace;
    if (keptProcessId.compare_exchange_strong(expected, wanted, std::memory_order_acq_rel)) return *wanted;
    if (made != nullptr) ::munmap(made, sizeof(ProcessId));
    return *expected;
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
    // No two threads that live have the same. The address of a thread_local takes longer to find in a shared library.
    return reinterpret_cast<const void*>(::pthread_self());
}

std::uint32_t currentProcessId() {
    // The C library asks the system each time, and every call on a pipe wants to know.
    ProcessId& kept = placeForProcessId();
    std::uint32_t id = kept.load(std::memory_order_relaxed);
    if (id != 0) return id;
    id = static_cast<std::uint32_t>(::getpid());
    if (&kept != &noPlace) kept.store(id, std::memory_order_relaxed);
    return id;
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

File openFileToAppend(const std::string& path) {
    return File(std::fopen(path.c_str(), "abe"));
}

bool hasMoreRightsThanItsUser() {
    return ::getauxval(AT_SECURE) != 0;
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
