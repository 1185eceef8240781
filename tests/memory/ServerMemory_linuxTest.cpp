#include "server/Worker.h"
#include "support/Holdings.h"
#include "support/OutOfMemory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace qvtp_test {
namespace {

/// Lets memory run out for the accept thread, for good, from its nth allocation on: at its start, while it accepts, or
/// when it stops. False when it did not need that many.
bool serveUntilMemoryRunsOut(long n) {
    TestHandler handler;
    QvtpServer server(uniquePipeName("short"), 1);
    server.setHandler(&handler);
    bool failed = false;
    std::atomic<bool> ended{false};
    std::thread accepting([&] {
        {
            const OutOfMemory memory(n);
            server.run();
            failed = memory.hasFailed();
        }
        ended = true;
    });
    EXPECT_TRUE(eventually([&] { return server.isRunning() || ended; }));
    EXPECT_TRUE(eventually([&] {
        server.shutdown();
        return ended.load();
    }));
    accepting.join();
    return failed;
}

TEST(ServerWithoutMemory, EndsAtItsStartOrAtItsStopAndGivesUpItsName) {
    const int handlesBefore = Holdings::now().handles;
    long n = 1;
    while (serveUntilMemoryRunsOut(n)) ++n;
    EXPECT_GT(n, 5);
    EXPECT_TRUE(eventually([&] { return Holdings::now().handles <= handlesBefore + 2 + Holdings::LATE_HANDLES; }));
}

}  // namespace
}  // namespace qvtp_test
