#pragma once

#include "common/System.h"

#include <atomic>

namespace Quovane::Internal::Qvtp {

/// A small recursive lock: an unnamed mutex of the operating system, the mark of the thread that owns it and how often
/// that thread has taken it. Use it through std::lock_guard. Waiting has no time limit.
class RecursiveMutex {
  public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock();
    void unlock();

  private:
    System::Mutex mutex_;
    std::atomic<const void*> owner_{nullptr};  // null: nobody; only the owner can read its own mark here
    int count_ = 0;                            // guarded by mutex_
};

}  // namespace Quovane::Internal::Qvtp
