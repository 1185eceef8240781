#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace Quovane::Internal::Qvtp {

/// How the thread that drains a server and the thread of run() meet: the first closes the server pipe and waits until
/// the second accepts no more; the second waits then, before it stops the workers, until the draining is over.
class Drain {
  public:
    using Clock = std::chrono::steady_clock;

    /// Whether it has ever begun: the server accepts no more.
    bool hasBegun() const { return hasBegun_; }
    /// Whether workers still have time to end.
    bool isUnderWay() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return underWay_;
    }

    /// False if another thread is at it already.
    bool begin() {
        hasBegun_ = true;
        const std::lock_guard<std::mutex> guard(mutex_);
        return !std::exchange(underWay_, true);
    }
    /// From any thread: nobody waits any more.
    void end() {
        const std::lock_guard<std::mutex> guard(mutex_);
        underWay_ = false;
        changed_.notify_all();
    }

    /// For the thread of run(), when it accepts no more. Returns when the draining is over, at once if there is none.
    void acceptHasEnded() {
        std::unique_lock<std::mutex> lock(mutex_);
        acceptEnded_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !underWay_; });
    }
    /// Waits for that. False at the deadline, or if the draining has been ended.
    bool awaitEndOfAccept(Clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_until(lock, deadline, [this] { return acceptEnded_ || !underWay_; });
        return acceptEnded_ && underWay_;
    }

    /// A request that had begun to arrive was not served.
    void noteCutOff() { cutOff_ = true; }
    bool hasCutOff() const { return cutOff_; }

  private:
    std::atomic<bool> hasBegun_{false};
    std::atomic<bool> cutOff_{false};
    mutable std::mutex mutex_;  // guards the rest
    std::condition_variable changed_;
    bool underWay_ = false;
    bool acceptEnded_ = false;
};

}  // namespace Quovane::Internal::Qvtp
