#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace qvtp_test {

Watchdog::Watchdog(std::chrono::seconds limit) : thread_([this, limit] { watch(limit); }) {}

Watchdog::~Watchdog() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        done_ = true;
    }
    condition_.notify_all();
    thread_.join();
}

void Watchdog::watch(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (condition_.wait_for(lock, limit, [this] { return done_; })) return;
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::fprintf(stderr, "Watchdog: %s.%s still runs after %lld s\n", test != nullptr ? test->test_suite_name() : "?",
                 test != nullptr ? test->name() : "?", static_cast<long long>(limit.count()));
    std::fflush(stderr);
    std::abort();
}

bool eventually(const std::function<bool()>& condition, std::chrono::seconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void spinFor(std::chrono::microseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) std::this_thread::yield();
}

std::chrono::milliseconds elapsed(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

}  // namespace qvtp_test
