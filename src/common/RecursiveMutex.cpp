#include "common/RecursiveMutex.h"

namespace Quovane::Internal::Qvtp {

void RecursiveMutex::lock() {
    const void* const self = System::currentThreadMark();
    if (owner_.load(std::memory_order_relaxed) != self) {
        mutex_.lock();
        owner_.store(self, std::memory_order_relaxed);
        count_ = 0;  // not so if the owner before has gone without unlocking
    }
    ++count_;
}

void RecursiveMutex::unlock() {
    if (--count_ > 0) return;
    owner_.store(nullptr, std::memory_order_relaxed);
    mutex_.unlock();
}

}  // namespace Quovane::Internal::Qvtp
