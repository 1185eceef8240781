#include "common/System.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

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

}  // namespace
