#include "common/RecursiveMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Quovane::Internal::Qvtp::RecursiveMutex;
using Guard = std::lock_guard<RecursiveMutex>;

/// A thread that takes the mutex, reports it, and gives it back on demand.
class Rival {
  public:
    explicit Rival(RecursiveMutex& mutex) : thread_([this, &mutex] { run(mutex); }) {}
    ~Rival() {
        release();
        thread_.join();
    }
    bool has() const { return has_; }
    void waitUntilItHas() { entered_.get_future().wait(); }
    void release() {
        if (!released_.exchange(true)) leave_.set_value();
    }

  private:
    void run(RecursiveMutex& mutex) {
        Guard guard(mutex);
        has_ = true;
        entered_.set_value();
        leave_.get_future().wait();
        has_ = false;
    }

    std::atomic<bool> has_{false};
    std::atomic<bool> released_{false};
    std::promise<void> entered_;
    std::promise<void> leave_;
    std::thread thread_;
};

TEST(RecursiveMutex, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<RecursiveMutex>);
    EXPECT_FALSE(std::is_copy_assignable_v<RecursiveMutex>);
}

TEST(RecursiveMutex, MayBeTakenAgainByItsOwner) {
    RecursiveMutex mutex;
    int depth = 0;
    const std::function<void()> descend = [&] {
        Guard guard(mutex);  // hangs, until the watchdog ends the test, if the lock is not recursive
        if (++depth < 10) descend();
    };
    descend();
    EXPECT_EQ(depth, 10);
}

TEST(RecursiveMutex, KeepsOthersOutUntilItIsReleasedAsOftenAsItWasTaken) {
    RecursiveMutex mutex;
    mutex.lock();
    mutex.lock();
    Rival rival(mutex);
    mutex.unlock();
    for (int i = 0; i < 1000 && !rival.has(); ++i) std::this_thread::yield();
    EXPECT_FALSE(rival.has());
    mutex.unlock();
    rival.waitUntilItHas();
    EXPECT_TRUE(rival.has());
}

TEST(RecursiveMutex, IsFreeForTheNextOwnerAfterTheLast) {
    RecursiveMutex mutex;
    {
        Rival first(mutex);
        first.waitUntilItHas();
    }
    Rival second(mutex);
    second.waitUntilItHas();
    EXPECT_TRUE(second.has());
}

TEST(RecursiveMutex, WaitsForAnotherThreadToLeave) {
    RecursiveMutex mutex;
    Rival rival(mutex);
    rival.waitUntilItHas();
    std::thread releaser([&] { rival.release(); });
    mutex.lock();
    EXPECT_FALSE(rival.has());
    mutex.unlock();
    releaser.join();
}

TEST(RecursiveMutex, LosesNoStepOfManyThreads) {
    RecursiveMutex mutex;
    int count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int step = 0; step < 5000; ++step) {
                Guard outer(mutex);
                Guard inner(mutex);
                ++count;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(count, 20000);
}

}  // namespace
