#pragma once

#include <mutex>
#include <utility>

namespace Quovane::Internal::Qvtp {

/// Lets one thread end another one's wait for input without closing the pipe. An event of the pipe is signalled for
/// that only while such a wait is running, and is reset when it ends: no other call ever finds it so. `signal` and
/// `reset` are what the system does with the event; they are called under the lock.
class InputWake {
  public:
    /// One wait for input on an object, from its beginInputWait() to its endInputWait().
    template <typename Object>
    class Scope {
      public:
        explicit Scope(Object& object) : object_(object), hasBegun_(object.beginInputWait()) {}
        ~Scope() { object_.endInputWait(); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

        bool hasBegun() const { return hasBegun_; }

      private:
        Object& object_;
        const bool hasBegun_;
    };

    /// False if the wait was woken before it began.
    bool begin() {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (std::exchange(woken_, false)) return false;
        awaiting_ = true;
        return true;
    }

    /// Also after a wait that did not begin.
    template <typename Reset>
    void end(const Reset& reset) {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (std::exchange(awaiting_, false) && std::exchange(woken_, false)) reset();
    }

    /// Ends the wait, or the next one if none is running.
    template <typename Signal>
    void wake(const Signal& signal) {
        const std::lock_guard<std::mutex> guard(mutex_);
        woken_ = true;
        if (awaiting_) signal();
    }

    /// Signals again, where an operation has reset the event, if the wait was woken meanwhile.
    template <typename Signal>
    void renew(const Signal& signal) {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (woken_) signal();
    }

  private:
    std::mutex mutex_;  // guards the rest
    bool woken_ = false;
    bool awaiting_ = false;
};

}  // namespace Quovane::Internal::Qvtp
