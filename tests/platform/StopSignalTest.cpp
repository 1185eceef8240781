#include <qvtp/platform/StopSignal.h>

#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <future>

namespace qvtp_test {
namespace {

using Quovane::Io::StopSignal;

TEST(StopSignal, WaitsAsLongAsItIsTold) {
    StopSignal stop;
    int signal = -1;
    EXPECT_GE(elapsed([&] { signal = stop.wait(30); }), std::chrono::milliseconds(30));
    EXPECT_EQ(signal, 0);
}

TEST(StopSignal, IsWokenByAnotherThread) {
    StopSignal stop, other;
    auto signal = inBackground([&] { return stop.wait(0); });
    other.wake();
    EXPECT_EQ(signal.wait_for(PENDING), std::future_status::timeout) << "the other one was woken";
    stop.wake();
    EXPECT_EQ(signal.get(), 0);
    EXPECT_EQ(stop.wait(0), 0) << "it stays awake";
}

}  // namespace
}  // namespace qvtp_test
