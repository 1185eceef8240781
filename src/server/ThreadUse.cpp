#include "server/ThreadUse.h"

#include <algorithm>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

using Guard = std::lock_guard<std::mutex>;
using namespace std::chrono_literals;

constexpr auto MOMENT = 50us;  // the pool needs a few microseconds to have a thread back

}  // namespace

void ThreadUse::grow(int count) {
    const Guard guard(mutex_);
    capacity_ += count;
    setBusy(busy_);
}

void ThreadUse::begin() {
    const Guard guard(mutex_);
    setBusy(busy_ + 1);
}

void ThreadUse::cancel() {
    const Guard guard(mutex_);
    setBusy(busy_ - 1);
}

int ThreadUse::generation() const {
    const Guard guard(mutex_);
    return generation_;
}

void ThreadUse::forget() {
    const Guard guard(mutex_);
    ++generation_;
    setBusy(0);
}

void ThreadUse::end(int generation) {
    const Guard guard(mutex_);
    if (generation != generation_) return;
    setBusy(busy_ - 1);
    ++ends_;
    changed_.notify_all();
}

int ThreadUse::busy() const {
    const Guard guard(mutex_);
    return busy_;
}

/// Called with the lock held.
void ThreadUse::setBusy(int busy) {
    busy_ = busy;
    available_ = std::max(capacity_ - busy_, 0);
}

std::uint64_t ThreadUse::ends() const {
    const Guard guard(mutex_);
    return ends_;
}

bool ThreadUse::awaitEnd(std::uint64_t seenEnds, Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool woken = changed_.wait_until(lock, deadline, [&] { return stopped_ || ends_ != seenEnds; });
    return woken && !stopped_;
}

bool ThreadUse::awaitIdle(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return stopped_ || busy_ == 0; });
    return busy_ == 0;
}

bool ThreadUse::awaitReturn(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_until(lock, std::min(deadline, Clock::now() + MOMENT), [&] { return stopped_; });
    return !stopped_ && Clock::now() < deadline;
}

void ThreadUse::pause(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return stopped_; });
}

void ThreadUse::stop() {
    const Guard guard(mutex_);
    stopped_ = true;
    changed_.notify_all();
}

void ThreadUse::setWanted(bool wanted) {
    const Guard guard(mutex_);
    wanted_ = wanted;
}

bool ThreadUse::takeWanted() {
    const Guard guard(mutex_);
    return std::exchange(wanted_, false);
}

}  // namespace Quovane::Internal::Qvtp
