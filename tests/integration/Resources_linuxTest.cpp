#include <qvtp/qvtp.h>

#include "support/TestServer.h"

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

int entriesOf(const char* directory) {
    int count = 0;
    DIR* dir = ::opendir(directory);
    while (::readdir(dir) != nullptr) ++count;
    ::closedir(dir);
    return count;
}

/// What this process holds.
struct Holdings {
    long memoryKb = 0;
    int threads = 0;
    int descriptors = 0;

    static Holdings now() {
        Holdings holdings;
        ::malloc_trim(0);
        std::ifstream statm("/proc/self/statm");
        long size = 0, resident = 0;
        statm >> size >> resident;
        holdings.memoryKb = resident * (::sysconf(_SC_PAGESIZE) / 1024);
        holdings.threads = entriesOf("/proc/self/task");
        holdings.descriptors = entriesOf("/proc/self/fd");
        return holdings;
    }
    void print(const char* when) const {
        std::printf("%-28s resident %6ld KB, %d threads, %d descriptors\n", when, memoryKb, threads, descriptors);
    }
};

class Resources : public ::testing::Test {
  protected:
    /// Runs 100 rounds, then the rest, and compares.
    template <typename Round>
    void expectNoGrowth(int rounds, const Round& round) {
        for (int i = 0; i < 100; ++i) round();
        const Holdings before = Holdings::now();
        before.print("after the first 100 rounds:");
        for (int i = 100; i < rounds; ++i) round();
        ASSERT_TRUE(eventually([&] { return Holdings::now().threads <= before.threads; }));
        const Holdings after = Holdings::now();
        after.print(("after " + std::to_string(rounds) + " rounds:").c_str());
        EXPECT_EQ(after.threads, before.threads);
        EXPECT_EQ(after.descriptors, before.descriptors);
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
