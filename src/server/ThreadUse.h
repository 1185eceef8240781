#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Quovane::Internal::Qvtp {

/// Counts the pool threads that serve a connection, and wakes the accept thread when one of them ends: the pool itself
/// reports it to nobody. Server and workers share it, since a handler that never returns outlives its server.
class ThreadUse {
  public:
    using Clock = std::chrono::steady_clock;

    /// `capacity`: how many threads the pool may have.
    explicit ThreadUse(int capacity) : available_(capacity), capacity_(capacity) {}

    void grow(int count);
    void begin();
    /// The start failed: the thread never ran.
    void cancel();
    /// A thread is about to go back to the pool. `generation`: as it was when the thread began.
    void end(int generation);
    int generation() const;
    /// Threads that have not ended by now never count again.
    void forget();

    int busy() const;
    /// How many threads are free, also those that are just going back. It takes no lock: every worker asks after every
    /// request.
    int available() const { return available_; }
    /// How often a thread has ended. Take it before a start that may fail: see awaitEnd().
    std::uint64_t ends() const;
    /// Waits until a thread has ended after `seenEnds` was taken. False at the deadline or after stop().
    bool awaitEnd(std::uint64_t seenEnds, Clock::time_point deadline);
    /// Waits until no thread serves a connection. False at the deadline, or after stop() while one does.
    bool awaitIdle(Clock::time_point deadline);
    /// Lets a moment pass, for a thread that has ended and is on its way back to the pool. False as above.
    bool awaitReturn(Clock::time_point deadline);
    /// Ends every wait, now and later.
    void stop();
    /// Waits until the deadline, or until stop().
    void pause(Clock::time_point deadline);

    /// A connection waits for a thread, and no worker was asked for its own yet: the first whose time with its client
    /// is over takes it upon itself. False if another was first.
    void setWanted(bool wanted);
    bool takeWanted();

  private:
    void setBusy(int busy);

    std::atomic<int> available_;  // changed under the lock
    mutable std::mutex mutex_;    // guards the rest
    std::condition_variable changed_;
    int capacity_;
    int busy_ = 0;
    int generation_ = 0;
    std::uint64_t ends_ = 0;
    bool stopped_ = false;
    bool wanted_ = false;
};

}  // namespace Quovane::Internal::Qvtp
