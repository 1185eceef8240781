#include "server/Worker.h"
#include "support/Holdings.h"
#include "support/LogHook_linux.h"
#include "support/OutOfMemory.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
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

std::chrono::microseconds processorTime() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

TEST(ServerWithoutMemory, PausesBetweenItsTries) {
    TestHandler handler;
    for (long n = 1;; ++n) {  // until the first allocation that fails is one of the accept loop
        QvtpServer server(uniquePipeName("short"), 1);
        server.setHandler(&handler);
        std::atomic<bool> ended{false};
        std::thread accepting([&] {
            {
                const OutOfMemory memory(n);
                server.run();
            }
            ended = true;
        });
        EXPECT_TRUE(eventually([&] { return server.isRunning() || ended; }));
        const bool isAccepting = !ended;
        const auto before = processorTime();
        if (isAccepting) std::this_thread::sleep_for(150ms);
        const auto used = processorTime() - before;
        EXPECT_TRUE(eventually([&] {
            server.shutdown();
            return ended.load();
        }));
        accepting.join();
        if (!isAccepting) continue;
        EXPECT_LT(used, 50ms);
        break;
    }
}

/// Lets the accept thread of a server that has as many threads as it needs lack memory once, for its nth allocation
/// after all five of its first threads are busy. False when it did not need that many.
bool growsInSpiteOf(long n, int attempts = 20) {
    TestServer server;
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 0);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    std::atomic<bool> isShort{false};
    std::atomic<bool> hasFailed{false};
    std::atomic<bool> isDone{false};
    std::atomic<bool> hasGivenWay{false};  // a worker that was slow to come back to its wait
    std::optional<OutOfMemory> memory;     // of the hook, which one line at a time enters
    std::thread::id accepting;
    std::vector<std::unique_ptr<RawClient>> clients;
    {
        const LogHook hook(LogHook::LoggingLevel::DEBUG, [&](std::string_view line) {
            const auto has = [&](const char* text) { return line.find(text) != std::string_view::npos; };
            if (has("Give up ")) hasGivenWay = true;
            if (has("has accepted a QvPipe connection.") && isShort.exchange(false)) {
                accepting = std::this_thread::get_id();
                memory.emplace(n, OutOfMemory::ONCE);
            } else if (memory && std::this_thread::get_id() == accepting &&
                       (memory->hasFailed() || has("Activated worker thread"))) {
                hasFailed = memory->hasFailed();
                memory.reset();
                isDone = true;
            }
        });
        server.start();
        for (int tries = 0; clients.size() < 6 && tries < 8; ++tries) {
            const std::size_t before = clients.size();
            if (before == 5) {
                std::this_thread::sleep_for(50ms);  // all five wait: none of them gives way
                isShort = tries == 5;
                server.server.setOption(QvtpServer::IDLE_TIMEOUT, 2000);  // a step of the wait is a tenth of it
            }
            const auto connect = [&] {
                clients.push_back(std::make_unique<RawClient>(server.name));
                if (clients.back()->exchange(POST_HELLO, HELLO_BACK) != HELLO_BACK) clients.pop_back();
            };
            if (thrownBy(connect) != "nothing") clients.resize(before);  // it met the failure
        }
        EXPECT_TRUE(eventually([&] { return isDone && (hasGivenWay || server.server.totalRequestProcessors() == 6); }))
            << n;
    }
    if (hasGivenWay && attempts > 0) return growsInSpiteOf(n, attempts - 1);
    EXPECT_EQ(server.server.idleRequestProcessors(), 1) << n;
    EXPECT_TRUE(server.server.drain(20000)) << n;
    return hasFailed;
}

TEST(ServerWithoutMemory, CountsItsThreadsAlsoWhenItLacksSomeWhileItGrows) {
    long n = 1;
    while (growsInSpiteOf(n)) ++n;
    EXPECT_GT(n, 5);
}

/// A worker that parts from its client lacks memory just when it looks whether what has come is whole.
TEST(ServerWithoutMemory, ServesWhatHasComeThoughItCannotLookAtIt) {
    const std::string notification = "NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n";
    std::promise<void> release;
    std::optional<OutOfMemory> memory;  // of the worker's thread
    std::atomic<bool> hasFailed{false};
    std::atomic<int> served{0};
    TestServer server;
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    server.handler.onNotify = [&](QvtpServerRequest&) {
        const int number = served + 1;
        if (number == 1) release.get_future().wait();
        if (number == 2) {
            std::this_thread::sleep_for(8ms);  // for 5 it would not look
            memory.emplace(1, OutOfMemory::ONCE);
        } else if (number == 3) {
            hasFailed = memory->hasFailed();
            memory.reset();
        }
        ++served;
    };
    server.start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 1; i <= 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == i; }));
    }
    clients[0]->write(notification);
    LogCapture log(LogCapture::LoggingLevel::INFO);
    RawClient fourth(server.name);
    EXPECT_TRUE(eventually(
        [&] { return log.contains("INFO Waiting for thread to process QvPipe worker " + server.name + "/Worker-4"); }));
    std::this_thread::sleep_for(6ms);  // it is asked for its thread
    clients[0]->write(notification + notification);
    release.set_value();
    EXPECT_EQ(clients[0]->readToEnd(), "");
    EXPECT_EQ(served, 3);
    EXPECT_TRUE(hasFailed);
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos) << log.text();
    server.stop();
}

}  // namespace
}  // namespace qvtp_test
