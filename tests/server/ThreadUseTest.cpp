#include "server/ThreadUse.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::ThreadUse;
using namespace std::chrono_literals;

ThreadUse::Clock::time_point in(std::chrono::milliseconds time) {
    return ThreadUse::Clock::now() + time;
}

TEST(UseOfThreads, CountsThoseThatServe) {
    ThreadUse use(2);
    EXPECT_EQ(use.available(), 2);
    use.begin();
    use.begin();
    EXPECT_EQ(use.busy(), 2);
    EXPECT_EQ(use.available(), 0);
    use.cancel();
    EXPECT_EQ(use.available(), 1);
    EXPECT_EQ(use.ends(), 0U);
    use.end(use.generation());
    EXPECT_EQ(use.busy(), 0);
    EXPECT_EQ(use.available(), 2);
    EXPECT_EQ(use.ends(), 1U);
}

TEST(UseOfThreads, HasMoreThreadsWhenItGrows) {
    ThreadUse use(1);
    use.begin();
    use.grow(3);
    EXPECT_EQ(use.available(), 3);
}

TEST(UseOfThreads, NeverHasLessThanNoThread) {
    ThreadUse use(1);
    use.begin();
    use.begin();
    EXPECT_EQ(use.available(), 0);
}

TEST(UseOfThreads, CountsAForgottenThreadNeverAgain) {
    ThreadUse use(2);
    const int former = use.generation();
    use.begin();
    use.forget();
    EXPECT_EQ(use.busy(), 0);
    EXPECT_EQ(use.available(), 2);
    use.begin();
    use.end(former);
    EXPECT_EQ(use.busy(), 1);
    EXPECT_EQ(use.ends(), 0U);
    use.end(use.generation());
    EXPECT_EQ(use.busy(), 0);
}

TEST(UseOfThreads, WakesWhoeverWaitsForAnEnd) {
    ThreadUse use(1);
    use.begin();
    auto ended = std::async(std::launch::async, [&, seen = use.ends()] { return use.awaitEnd(seen, in(20s)); });
    auto idle = std::async(std::launch::async, [&] { return use.awaitIdle(in(20s)); });
    use.end(use.generation());
    EXPECT_TRUE(ended.get());
    EXPECT_TRUE(idle.get());
}

TEST(UseOfThreads, HasSeenAnEndThatCameBeforeTheWait) {
    ThreadUse use(1);
    const auto seen = use.ends();
    use.begin();
    use.end(use.generation());
    EXPECT_TRUE(use.awaitEnd(seen, in(0ms)));
    EXPECT_FALSE(use.awaitEnd(use.ends(), in(0ms)));
}

TEST(UseOfThreads, IsNotIdleAtTheDeadlineWhileAThreadServes) {
    ThreadUse use(1);
    use.begin();
    EXPECT_FALSE(use.awaitIdle(in(1ms)));
}

TEST(UseOfThreads, LetsAMomentPassForAReturn) {
    ThreadUse use(1);
    EXPECT_TRUE(use.awaitReturn(in(20s)));
    EXPECT_FALSE(use.awaitReturn(in(-1ms)));
}

TEST(UseOfThreads, EndsEveryWaitWhenItStops) {
    ThreadUse use(1);
    use.begin();
    const auto begin = ThreadUse::Clock::now();
    auto pause = std::async(std::launch::async, [&] { use.pause(in(20s)); });
    auto ended = std::async(std::launch::async, [&] { return use.awaitEnd(use.ends(), in(20s)); });
    auto idle = std::async(std::launch::async, [&] { return use.awaitIdle(in(20s)); });
    use.stop();
    pause.get();
    EXPECT_FALSE(ended.get());
    EXPECT_FALSE(idle.get());
    EXPECT_FALSE(use.awaitReturn(in(20s)));
    use.end(use.generation());
    EXPECT_FALSE(use.awaitEnd(0, in(20s)));  // an end that nobody cares for any more
    EXPECT_TRUE(use.awaitIdle(in(20s)));
    EXPECT_LT(ThreadUse::Clock::now() - begin, 10s);
}

TEST(UseOfThreads, PausesUntilTheDeadline) {
    ThreadUse use(1);
    const auto end = in(20ms);
    use.pause(end);
    EXPECT_GE(ThreadUse::Clock::now(), end);
}

TEST(UseOfThreads, LetsOneThreadTakeTheWish) {
    ThreadUse use(1);
    EXPECT_FALSE(use.takeWanted());
    use.setWanted(true);
    EXPECT_TRUE(use.takeWanted());
    EXPECT_FALSE(use.takeWanted());
    use.setWanted(true);
    use.setWanted(false);
    EXPECT_FALSE(use.takeWanted());
}

}  // namespace
}  // namespace qvtp_test
