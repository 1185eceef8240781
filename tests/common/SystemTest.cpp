#include "common/System.h"

#include "support/Holdings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace System = Quovane::Internal::Qvtp::System;

std::int64_t now() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

TEST(SystemClock, CountsTheMillisecondsSince1970) {
    const std::int64_t before = now();
    const std::int64_t time = System::wallClockMs();
    EXPECT_GE(time, before);
    EXPECT_LE(time, now());
}

TEST(SystemClock, NeverGoesBackwardsOnTheMonotonicSide) {
    std::int64_t last = System::monotonicMs();
    for (int i = 0; i < 10000; ++i) {
        const std::int64_t time = System::monotonicMs();
        ASSERT_GE(time, last);
        last = time;
    }
}

TEST(SystemClock, AdvancesByAtLeastTheTimeSlept) {
    const std::int64_t start = System::monotonicMs();
    System::sleepMs(20);
    EXPECT_GE(System::monotonicMs() - start, 19);  // both ends are cut to whole milliseconds
}

TEST(SystemThreadId, StaysTheSameOnOneThreadAndDiffersOnAnother) {
    const std::uint32_t mine = System::currentThreadId();
    std::uint32_t other = mine;
    std::thread([&] { other = System::currentThreadId(); }).join();
    EXPECT_EQ(System::currentThreadId(), mine);
    EXPECT_NE(other, mine);
    EXPECT_NE(mine, 0U);
}

TEST(SystemProcess, HasOneIdInAllThreads) {
    const std::uint32_t mine = System::currentProcessId();
    std::uint32_t other = 0;
    std::thread([&] { other = System::currentProcessId(); }).join();
    EXPECT_EQ(other, mine);
    EXPECT_NE(mine, 0U);
}

TEST(SystemFileExists, TellsWhatIsThereFromWhatIsNot) {
    EXPECT_TRUE(System::fileExists("."));
    EXPECT_FALSE(System::fileExists("no such file, surely"));
    EXPECT_FALSE(System::fileExists(""));
}

TEST(SystemUtcTime, BreaksDownAKnownSecond) {
    const std::tm time = System::utcTime(1480930201);
    EXPECT_EQ(time.tm_year + 1900, 2016);
    EXPECT_EQ(time.tm_mon + 1, 12);
    EXPECT_EQ(time.tm_mday, 5);
    EXPECT_EQ(time.tm_hour * 10000 + time.tm_min * 100 + time.tm_sec, 93001);
}

TEST(SystemLastErrorGuard, PutsTheLastErrorBack) {
    errno = ENOENT;
    {
        System::LastErrorGuard guard;
        errno = EINVAL;
    }
    EXPECT_EQ(errno, ENOENT);
}

TEST(SystemThreadText, IsEachThreadsOwn) {
    System::setThreadText("first");
    std::thread([] {
        EXPECT_EQ(System::threadText(), "");
        System::setThreadText("second");
        EXPECT_EQ(System::threadText(), "second");
    }).join();
    EXPECT_EQ(System::threadText(), "first");
    System::setThreadText("");
}

TEST(SystemThreadText, GoesWithItsThread) {
    const auto endAThread = [] { std::thread([] { System::setThreadText(std::string(1 << 20, 'x')); }).join(); };
    endAThread();
    const long before = qvtp_test::Holdings::now().memoryKb;
    for (int i = 0; i < 200; ++i) endAThread();
    // Sanitizers keep freed memory, and look for leaks themselves.
    if (!QVTP_SANITIZED) {
        EXPECT_LT(qvtp_test::Holdings::now().memoryKb, before + 50 * 1024);
    }
}

TEST(SystemThreadText, TakesNoMemoryOfOthersAlongWhenItGoes) {
    // Blocks of every size that a thread's own storage may have, written as soon as they are given out.
    std::atomic<bool> done{false};
    std::atomic<int> overwritten{0};
    std::vector<std::thread> owners;
    for (int i = 0; i < 2; ++i) {
        owners.emplace_back([&] {
            while (!done) {
                std::vector<std::vector<char>> blocks;
                for (std::size_t size = 8; size <= 256; size += 8) blocks.emplace_back(size, 'A');
                std::this_thread::yield();
                for (const std::vector<char>& block : blocks) {
                    if (block != std::vector<char>(block.size(), 'A')) ++overwritten;
                }
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        std::vector<std::thread> threads;
        for (int j = 0; j < 8; ++j) threads.emplace_back([] { System::setThreadText(std::string(100, 'x')); });
        for (std::thread& thread : threads) thread.join();
    }
    done = true;
    for (std::thread& owner : owners) owner.join();
    EXPECT_EQ(overwritten, 0);
}

TEST(SystemMutex, LetsOneThreadInAtATime) {
    System::Mutex mutex;
    int count = 0;  // a race for ThreadSanitizer, and lost counts, if it does not
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 1000; ++round) {
                const std::lock_guard<System::Mutex> guard(mutex);
                const int before = count;
                if (round % 100 == 0) std::this_thread::yield();
                count = before + 1;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(count, 4000);
}

}  // namespace
