#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace qvtp_test {

/// While it lives, calls of the system that the calling thread makes fail: `times` of them, after the first `after` of
/// their kind. Other threads are not affected. One at a time on each thread. One that never happens proves that there
/// was no such call.
///
/// A program that uses it links the CMake target qvtp_test_calls, which puts itself before the functions of the C
/// library.
class CallFailure {
  public:
    enum class Call {
        ACCEPT,
        CONNECT,
        EVENTFD,
        FCNTL,
        FSTAT,  // and fstatat
        FTRUNCATE,
        GETPID,
        GETSOCKOPT,
        INOTIFY,
        IOCTL,
        LISTEN,
        OPEN,
        POLL,
        PREAD,
        PWRITE,
        RECEIVE,
        RENAME,
        SEND,
        SETSOCKOPT,
        SOCKET,
        WRITE
    };

    CallFailure(Call call, int error, int times = 1, int after = 0);
    ~CallFailure();
    CallFailure(const CallFailure&) = delete;
    CallFailure& operator=(const CallFailure&) = delete;

    /// Whether one has failed: a loop over `after` ends when none has.
    bool hasHappened() const;

    /// How many have failed on all threads so far: to wait for one of another thread.
    static int total();
};

/// Removes a file as slowly as the system at times does: the calling thread's first look at it still finds it, without
/// a name. Then it is gone.
class SlowRemoval {
  public:
    enum class Look { AT_NAME, AT_OPEN_FILE };

    /// Of the first file that is looked at in this way and whose path ends so.
    SlowRemoval(const char* ending, Look look);
    ~SlowRemoval();
    SlowRemoval(const SlowRemoval&) = delete;
    SlowRemoval& operator=(const SlowRemoval&) = delete;
};

/// While it lives, what the calling thread sends is cut after so many bytes in all, and the send after that fails. Only
/// that one: what is sent later goes its way.
class SendCut {
  public:
    SendCut(std::size_t bytes, int error);
    ~SendCut();
    SendCut(const SendCut&) = delete;
    SendCut& operator=(const SendCut&) = delete;

    /// Whether the send has failed.
    bool hasHappened() const;
};

/// Keeps a thread after a wait for a pipe, before it can do anything about what has ended the wait: to the others it
/// looks as if it waited on. It holds no lock meanwhile. It must outlive the thread's wait.
class WaitHold {
  public:
    WaitHold() = default;
    ~WaitHold() { letGo(); }
    WaitHold(const WaitHold&) = delete;
    WaitHold& operator=(const WaitHold&) = delete;

    /// The next wait of the calling thread is meant.
    void arm();
    /// The same for the next event that it signals: it is kept before it does.
    void armSignal();
    /// Whether the thread has come to that wait.
    bool hasBegun() const { return begun_; }
    /// Whether the wait has ended.
    bool hasEnded() const { return ended_; }
    /// Also beforehand.
    void letGo();

    // For the call that waits.

    void begin() { begun_ = true; }
    /// Returns when the thread may go on.
    void end();

  private:
    std::atomic<bool> begun_{false};
    std::atomic<bool> ended_{false};
    std::mutex mutex_;
    std::condition_variable changed_;
    bool isLetGo_ = false;  // guarded by mutex_
};

}  // namespace qvtp_test
