#pragma once

#include "common/System.h"

#include <atomic>
#include <cstdint>

namespace Quovane::Internal::Qvtp {

/// A small recursive lock: an unnamed mutex of the operating system, the id of the thread that owns it and how often
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
    std::atomic<std::uint32_t> owner_{0};  // 0: nobody; only the owner can read its own id here
    int count_ = 0;                        // guarded by mutex_
};

}  // namespace Quovane::Internal::Qvtp
