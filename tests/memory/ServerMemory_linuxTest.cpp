#include "server/Worker.h"
#include "support/Holdings.h"
#include "support/OutOfMemory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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

/// A server whose accept thread lacks memory once, for its nth allocation.
class ServerThatLackedMemoryOnce {
  public:
    explicit ServerThatLackedMemoryOnce(long n) : server_(name_, 1) {
        server_.setHandler(&handler_);
        server_.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
        server_.setOption(QvtpServer::IDLE_TIMEOUT, 3000);  // a step of the wait for a thread is a tenth of it
        accepting_ = std::thread([this, n] {
            const OutOfMemory memory(n, OutOfMemory::ONCE);
            server_.run();
            failed_ = memory.hasFailed();
            ended_ = true;
        });
    }
    ~ServerThatLackedMemoryOnce() { stop(); }
    ServerThatLackedMemoryOnce(const ServerThatLackedMemoryOnce&) = delete;
    ServerThatLackedMemoryOnce& operator=(const ServerThatLackedMemoryOnce&) = delete;

    bool runs() const {
        EXPECT_TRUE(eventually([this] { return server_.isRunning() || ended_; }));
        return !ended_;
    }
    /// All of its threads have a client then, and none had to give way.
    bool servesThreeAtOnce() {
        std::vector<std::unique_ptr<RawClient>> clients;
        const auto connect = [&] {
            clients.push_back(std::make_unique<RawClient>(name_));
            if (clients.back()->exchange(POST_HELLO, HELLO_BACK) != HELLO_BACK) clients.pop_back();
        };
        for (int tries = 0; clients.size() < 3 && tries < 6; ++tries) {
            const std::size_t before = clients.size();
            if (thrownBy(connect) != "nothing") clients.resize(before);  // it met the failure
        }
        return clients.size() == 3 &&
               eventually([this] { return server_.totalRequestProcessors() == 3; }, std::chrono::seconds(2));
    }
    /// Whether it lacked memory.
    bool stop() {
        server_.shutdown();
        if (accepting_.joinable()) accepting_.join();
        return failed_;
    }

  private:
    const std::string name_ = uniquePipeName("short");
    TestHandler handler_;
    QvtpServer server_;
    bool failed_ = false;
    std::atomic<bool> ended_{false};
    std::thread accepting_;
};

TEST(ServerWithoutMemory, HasAllItsThreadsAgain) {
    bool failed = true;
    long n = 1;
    for (; failed; ++n) {
        ServerThatLackedMemoryOnce server(n);
        EXPECT_TRUE(!server.runs() || server.servesThreeAtOnce()) << n;
        failed = server.stop();
    }
    EXPECT_GT(n, 20);
}

}  // namespace
}  // namespace qvtp_test
