#include <qvtp/config/QvtpConfig.h>

#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

/// The only test of this program that reads the configuration itself: a process does that once.
TEST(FirstUseOfTheConfiguration, MayComeFromManyThreadsAtOnce) {
    constexpr int THREADS = 8;
    const std::string file = makeTestDirectory() + "/settings.xml";
    writeFile(file, "<root><QvtpClient function='F' component='C' stale_timeout='2'/></root>");
    setEnvironment("QvtpConfigurationFile", file);
    std::atomic<int> ready{0};
    std::vector<int> timeouts(THREADS);
    std::vector<std::thread> threads;
    for (int& timeout : timeouts) {
        threads.emplace_back([&ready, &timeout] {
            QvtpClient client;
            ++ready;
            while (ready < THREADS) std::this_thread::yield();
            QvtpConfig::getInstance().setQvtpClientOptions(client, "F", "C");
            timeout = client.getIntegerOption(QvtpClient::IDLE_TIMEOUT);
        });
    }
    for (std::thread& thread : threads) thread.join();
    unsetEnvironment("QvtpConfigurationFile");
    EXPECT_THAT(timeouts, ::testing::Each(2));
}

}  // namespace
}  // namespace qvtp_test
