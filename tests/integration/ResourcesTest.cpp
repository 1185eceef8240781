#include <qvtp/qvtp.h>

#include "support/Holdings.h"
#include "support/TestServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

void print(const Holdings& holdings, const char* when) {
    std::printf("%-28s %6ld KB, %d threads, %d handles\n", when, holdings.memoryKb, holdings.threads, holdings.handles);
}

class Resources : public ::testing::Test {
  protected:
    /// Runs 100 rounds, then the rest, and compares.
    template <typename Round>
    void expectNoGrowth(int rounds, const Round& round) {
        // The most of all these moments: at any one of them a worker may just have closed what it will have again.
        Holdings before;
        for (int i = 0; i < 100; ++i) {
            round();
            const Holdings now = Holdings::now();
            before.memoryKb = std::max(before.memoryKb, now.memoryKb);
            before.threads = std::max(before.threads, now.threads);
            before.handles = std::max(before.handles, now.handles);
        }
        print(before, "after the first 100 rounds:");
        for (int i = 100; i < rounds; ++i) round();
        // The last connections are still being closed by their workers.
        Holdings after;
        const bool isBack = eventually([&] {
            after = Holdings::now();
            return after.threads <= before.threads && after.handles <= before.handles + Holdings::LATE_HANDLES;
        });
        print(after, ("after " + std::to_string(rounds) + " rounds:").c_str());
        EXPECT_TRUE(isBack);
        // Sanitizers keep freed memory on purpose.
        if (!QVTP_SANITIZED) {
            EXPECT_LE(after.memoryKb, before.memoryKb + 1024);
        }
    }
};

TEST_F(Resources, AreBackAfterTenThousandConnections) {
    TestServer server;
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.start();
    expectNoGrowth(10000, [&] {
        QvtpClient client;
        PostRequest request(&client, server.name, "/echo");
        request.setBody("hello", 5);
        const std::unique_ptr<QvtpResponse> response(request.execute());
        ASSERT_EQ(bodyOf(*response), "hello");
    });
}

TEST_F(Resources, AreBackAfterAThousandServers) {
    expectNoGrowth(1000, [] {
        TestServer server;
        server.start();
        QvtpClient client;
        PostRequest request(&client, server.name, "/echo");
        request.setBody("hello", 5);
        const std::unique_ptr<QvtpResponse> response(request.execute());
        ASSERT_EQ(bodyOf(*response), "hello");
    });
}

}  // namespace
}  // namespace qvtp_test
