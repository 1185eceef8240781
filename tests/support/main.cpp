#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

namespace {

/// A watchdog for every test, of QVTP_TEST_LIMIT seconds.
class WatchdogListener : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override {
        watchdog_ = std::make_unique<qvtp_test::Watchdog>(std::chrono::seconds(QVTP_TEST_LIMIT));
    }
    void OnTestEnd(const ::testing::TestInfo&) override { watchdog_.reset(); }

    std::unique_ptr<qvtp_test::Watchdog> watchdog_;
};

}  // namespace

// Known to the sanitizers by their names. POCO's pool neither frees nor joins the thread of a handler that did not
// return within its ten seconds.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:Poco::ThreadPool::createThread\n";
}

extern "C" const char* __tsan_default_suppressions() {
    return "thread:Poco::ThreadImpl::startImpl\n";
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new WatchdogListener);
    return RUN_ALL_TESTS();
}
