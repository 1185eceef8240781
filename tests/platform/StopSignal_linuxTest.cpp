#include <qvtp/platform/StopSignal.h>

#include "support/Child.h"
#include "support/FailingCall_linux.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

namespace qvtp_test {
namespace {

using Quovane::Io::StopSignal;

volatile sig_atomic_t handled = 0;

void handle(int) {
    handled = handled + 1;
}

struct sigaction actionOf(int signal) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    return action;
}

/// With handlers of the application's.
class StopSignals : public ::testing::Test {
  protected:
    StopSignals() {
        handled = 0;
        struct sigaction action {};
        action.sa_handler = handle;
        action.sa_flags = SA_NODEFER;
        for (int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
        // This program's own versions of them look for those of the C library at their first call, under a lock that a
        // child must not inherit.
        ::getpid();
        EXPECT_EQ(::write(-1, "", 1), -1);
    }
    ~StopSignals() override {
        for (int signal : {SIGINT, SIGTERM}) ::signal(signal, SIG_DFL);
    }
};

TEST_F(StopSignals, EndTheWaitWithTheirNumber) {
    for (int signal : {SIGINT, SIGTERM}) {
        StopSignal stop;
        ::kill(::getpid(), signal);
        EXPECT_EQ(stop.wait(20000), signal);
        EXPECT_EQ(stop.wait(20000), signal) << "for who asks again too";
    }
    EXPECT_EQ(handled, 0);
}

TEST_F(StopSignals, OfThePastAreForgottenWithTheLastObject) {
    {
        StopSignal stop;
        ::kill(::getpid(), SIGTERM);
        EXPECT_EQ(stop.wait(20000), SIGTERM);
    }
    StopSignal stop;
    EXPECT_EQ(stop.wait(1), 0);
}

TEST_F(StopSignals, AreWaitedForWhateverOtherSignalsCome) {
    struct sigaction action {};
    action.sa_handler = handle;
    struct sigaction before {};
    ::sigaction(SIGUSR1, &action, &before);
    {
        StopSignal stop;
        const pthread_t waiter = ::pthread_self();
        const auto begin = std::chrono::steady_clock::now();
        std::atomic<bool> isOver{false};
        std::thread sender([&] {
            // Most of them come while it waits.
            while (!isOver) {
                ::pthread_kill(waiter, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
        EXPECT_EQ(stop.wait(60), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(59));
        isOver = true;
        sender.join();
    }
    EXPECT_GT(handled, 0);
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(StopSignals, AreHandledAsBeforeAfterTheLastObject) {
    {
        auto first = std::make_unique<StopSignal>();
        const StopSignal second;
        first.reset();
        EXPECT_NE(actionOf(SIGTERM).sa_handler, handle);
    }
    for (int signal : {SIGINT, SIGTERM}) {
        EXPECT_EQ(actionOf(signal).sa_handler, handle);
        EXPECT_TRUE((actionOf(signal).sa_flags & SA_NODEFER) != 0);
        ::raise(signal);
    }
    EXPECT_EQ(handled, 2);
}

TEST_F(StopSignals, KeepTheHandlerThatSomebodySetsMeanwhile) {
    {
        const StopSignal stop;
        ::signal(SIGTERM, SIG_IGN);
    }
    EXPECT_EQ(actionOf(SIGTERM).sa_handler, SIG_IGN);
    EXPECT_EQ(actionOf(SIGINT).sa_handler, handle);
}

TEST_F(StopSignals, ThatAreIgnoredStaySo) {
    ::signal(SIGINT, SIG_IGN);
    {
        StopSignal stop;
        ::kill(::getpid(), SIGINT);
        EXPECT_EQ(stop.wait(1), 0);
    }
    EXPECT_EQ(actionOf(SIGINT).sa_handler, SIG_IGN);
}

TEST_F(StopSignals, DoInAForkedChildWhatTheyDidBefore) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer delays handlers";
    StopSignal stop;
    const int result = resultInChild([] {
        ::raise(SIGTERM);
        return handled == 1 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(stop.wait(1), 0) << "it was the child's";
}

TEST_F(StopSignals, AreTheChildsOwnInAForkedChild) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer delays handlers";
    StopSignal stop;
    const int result = resultInChild([] {
        std::optional<StopSignal> own(std::in_place);
        ::raise(SIGINT);
        const bool received = own->wait(20000) == SIGINT;
        own.reset();
        ::raise(SIGINT);
        return received && handled == 1 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(stop.wait(1), 0);
    ::raise(SIGTERM);
    EXPECT_EQ(stop.wait(20000), SIGTERM);
}

TEST_F(StopSignals, AreTheChildsOwnAlsoAfterOneThatCameBeforeItsFirstObject) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer delays handlers";
    const StopSignal stop;
    const int result = resultInChild([] {
        ::raise(SIGTERM);
        if (handled != 1) return 1;
        for (int signal : {SIGINT, SIGTERM}) {
            std::optional<StopSignal> own(std::in_place);
            ::raise(signal);
            if (handled != 1 || own->wait(20000) != signal) return 2;
        }
        return actionOf(SIGINT).sa_handler == handle && actionOf(SIGTERM).sa_handler == handle ? 0 : 3;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(StopSignals, StayTheChildsOwnWhenTheParentsObjectGoes) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer delays handlers";
    auto stop = std::make_unique<StopSignal>();
    const int result = resultInChild([&] {
        StopSignal own;
        stop.reset();
        ::raise(SIGTERM);
        return handled == 0 && own.wait(20000) == SIGTERM ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(StopSignals, AreNotTakenByAChildThatWasForkedBetweenTwoUses) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer delays handlers";
    { const StopSignal former; }
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const int child = startChild([&] {
        char begun = 0;
        if (::read(pipe[0], &begun, 1) != 1) return 1;
        StopSignal own;
        return own.wait(1) == 0 ? 0 : 2;
    });
    StopSignal stop;
    ::raise(SIGINT);
    ASSERT_EQ(::write(pipe[1], "b", 1), 1);
    EXPECT_EQ(resultOf(child), 0);
    EXPECT_EQ(stop.wait(1000), SIGINT);
    for (int end : pipe) ::close(end);
}

// What is forked is a child that has not used the class, and begins to on another thread.
TEST_F(StopSignals, CanBeUsedInAChildThatIsForkedDuringTheFirstUse) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer lets no forked child go on";
    for (int i = 0; i < 300 && !HasFailure(); ++i) {
        EXPECT_EQ(resultInChild([i] {
                      std::atomic<bool> begins{false};
                      auto user = std::async(std::launch::async, [&] {
                          begins = true;
                          const StopSignal stop;
                      });
                      while (!begins) std::this_thread::yield();
                      for (int turn = 0; turn < i; ++turn) std::atomic_signal_fence(std::memory_order_seq_cst);
                      return resultOf(startChildAtOnce([] {
                          ::alarm(10);
                          const StopSignal own;
                          return 0;
                      }));
                  }),
                  0);
    }
}

TEST_F(StopSignals, CanBeUsedInAChildThatIsForkedWhileAnotherThreadUsesThem) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer lets no forked child go on";
    std::atomic<bool> isDone{false};
    auto user = std::async(std::launch::async, [&] {
        while (!isDone) const StopSignal stop;
    });
    for (int i = 0; i < 100; ++i) {
        const int child = startChildAtOnce([] {
            ::alarm(10);
            const StopSignal own;
            return 0;
        });
        EXPECT_EQ(resultOf(child), 0);
        if (HasFailure()) break;
    }
    isDone = true;
}

TEST_F(StopSignals, AreNotWatchedWithoutAnEvent) {
    for (int n = 0; n < 2; ++n) {
        const CallFailure failure(CallFailure::Call::EVENTFD, EMFILE, 1, n);
        std::string thrown;
        try {
            const StopSignal stop;
        } catch (const std::system_error& e) {
            thrown = e.what();
        }
        if (!failure.hasHappened()) break;  // the event of all objects is kept
        EXPECT_EQ(thrown, "no event for signals: Too many open files");
        EXPECT_EQ(actionOf(SIGINT).sa_handler, handle);
    }
    StopSignal stop;
    ::raise(SIGTERM);
    EXPECT_EQ(stop.wait(20000), SIGTERM);
}

TEST_F(StopSignals, EndTheWaitAlsoAfterAnInterruption) {
    StopSignal stop;
    ::raise(SIGINT);
    const CallFailure failure(CallFailure::Call::POLL, EINTR, 3);
    EXPECT_EQ(stop.wait(20000), SIGINT);
    EXPECT_TRUE(failure.hasHappened());
}

TEST_F(StopSignals, EndNoWaitThatTheSystemRefuses) {
    StopSignal stop;
    const CallFailure failure(CallFailure::Call::POLL, ENOMEM);
    EXPECT_EQ(stop.wait(20000), 0);
    EXPECT_TRUE(failure.hasHappened());
}

}  // namespace
}  // namespace qvtp_test
