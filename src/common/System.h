#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

/// The few services of the operating system that everything above needs, apart from pipes.
namespace Quovane::Internal::Qvtp::System {

/// Milliseconds since 1970 of the wall clock, for time stamps, pool ages and throughput lines.
std::int64_t wallClockMs();

/// Milliseconds of a clock that never jumps, for time-outs. Its zero has no meaning.
std::int64_t monotonicMs();

/// The operating system's id of the calling thread.
std::uint32_t currentThreadId();

/// Tells the calling thread from all others that live, without asking the system. Never null. A thread that has ended
/// may have had the same.
const void* currentThreadMark();

/// The operating system's id of this process: another one in a forked child.
std::uint32_t currentProcessId();

/// Suspends the calling thread for at least this long.
void sleepMs(int milliseconds);

/// The value of an environment variable, in UTF-8 where the system knows the encoding; nothing if it is not set.
std::optional<std::string> environmentVariable(const char* name);

/// Whether a file-status query on the path (UTF-8) succeeds.
bool fileExists(const std::string& path);

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

/// Opens a file (UTF-8; on Linux any bytes) for reading, null if that fails.
File openFile(const std::string& path);
/// The same for writing at its end. It is made if it is not there. Programs that this one starts do not get it.
File openFileToAppend(const std::string& path);

/// Whether the process may do more than the user who started it, who has no say in what it does then: set-user-id
/// programs and the like, as in the manual of secure_getenv(3). Never on Windows.
bool hasMoreRightsThanItsUser();

/// Calendar times that, unlike std::gmtime and std::localtime, share no buffer between threads.
std::tm utcTime(std::time_t seconds);
std::tm localTime(std::time_t seconds);

/// A text of the calling thread (on Windows: of its fiber), empty at first, that goes with the thread. Objects with
/// static storage may ask after that: it is empty then.
std::string threadText();
void setThreadText(const std::string& text);

/// An unnamed mutex of the operating system, held by one thread once.
class Mutex {
  public:
    /// Throws std::bad_alloc if the system has no more.
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits without limit.
    void lock();
    void unlock();

  private:
    struct State;
    const std::unique_ptr<State> state_;
};

/// Puts the calling thread's last error (errno, GetLastError) back when it goes out of scope: results are judged by it
/// after log calls, which must therefore leave no trace in it.
class LastErrorGuard {
  public:
    LastErrorGuard();
    ~LastErrorGuard();
    LastErrorGuard(const LastErrorGuard&) = delete;
    LastErrorGuard& operator=(const LastErrorGuard&) = delete;

  private:
    int errno_;
    [[maybe_unused]] unsigned long systemError_;  // of Windows
};

}  // namespace Quovane::Internal::Qvtp::System
