#include "server/Worker.h"
#include "support/FailingCall_linux.h"
#include "support/LogHook_linux.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <atomic>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qvtp_test {
namespace {

const std::string NOTIFICATION = "NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n";

/// Workers whose clients fall silent while a connection is about to wait for a thread.
class RestingWorker : public Worker {
  protected:
    RestingWorker() {
        server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
        server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);  // a step of the wait is a minute
    }
    ~RestingWorker() override { server.stop(); }  // before what its handler uses

    static void expectServedSoon(RawClient& client) {
        EXPECT_LT(elapsed([&] { EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK); }), 10s);
    }

    std::vector<std::unique_ptr<RawClient>> clients;
    std::atomic<int> notified{0};
};

/// The map of the workers is in the order of their names: the tenth comes before the eighth, which began earlier.
TEST_F(RestingWorker, IsAskedAlsoIfOthersThatDoNotRestBeganBefore) {
    std::promise<void> waiting;
    std::promise<void> goOn;
    server.handler.onNotify = [this](QvtpServerRequest&) { ++notified; };
    server.start();
    for (int i = 1; i <= 7; ++i) {
        reap();
        ASSERT_TRUE(eventually([&] { return server.server.idleRequestProcessors() == 3; }));
    }
    for (int i = 8; i <= 10; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        ASSERT_TRUE(eventually([&] { return server.server.idleRequestProcessors() == 10 - i; }));
    }
    std::this_thread::sleep_for(6ms);  // their turns are over
    std::atomic<bool> isHeld{false};
    const LogHook hook(LogHook::LoggingLevel::INFO, [&](std::string_view line) {
        if (line.find("Waiting for thread") == std::string::npos || isHeld.exchange(true)) return;
        waiting.set_value();
        goOn.get_future().wait();
    });
    RawClient eleventh(server.name);
    waiting.get_future().wait();  // the accept thread has found no thread, and has asked nobody yet
    clients[2]->write(NOTIFICATION);
    EXPECT_TRUE(eventually([&] { return notified == 1; }));
    std::this_thread::sleep_for(10ms);  // it rests
    goOn.set_value();
    expectServedSoon(eleventh);
}

/// Whose turn is not over when somebody begins to wait: it gives up at the end of its turn.
TEST_F(RestingWorker, GivesUpAtTheEndOfItsTurn) {
    server.handler.onNotify = [this](QvtpServerRequest&) { ++notified; };
    server.start();
    for (int i = 0; i < 3; ++i) clients.push_back(clientWithWorker());
    int waits = 0;
    const LogHook hook(LogHook::LoggingLevel::INFO, [&](std::string_view line) {
        if (line.find("Waiting for thread") == std::string::npos || ++waits == 1) return;
        eventually([&] { return notified == waits - 1; }, 2s);
        spinFor(1ms);  // the last worker rests
    });
    RawClient fourth(server.name);
    fourth.write(NOTIFICATION);
    RawClient fifth(server.name);  // is not accepted as long as the fourth waits
    clients[0]->close();
    expectServedSoon(fifth);
}

/// Workers that are kept when their wait for a request has ended, so that they do not come to give up their clients.
class HeldWorker : public RestingWorker {
  protected:
    ~HeldWorker() override {
        asked.letGo();
        other.letGo();
        server.stop();
    }
    /// Connects a client whose request comes to the handler: its worker has read the options by then.
    void addClientThatIsServed() {
        const int before = notified;
        clients.push_back(std::make_unique<RawClient>(server.name));
        clients.back()->write(NOTIFICATION);
        ASSERT_TRUE(eventually([&] { return notified > before; }));
    }
    std::string giveUpLine(int number) const {
        return "DEBUG Give up " + full(number) + " for a new request waiting for a worker thread.";
    }

    WaitHold asked;
    WaitHold other;
};

TEST_F(HeldWorker, IsAskedAgainInTheNextStepAndTheOthersAreNot) {
    server.server.setMakeRoom(true);
    server.handler.onNotify = [this](QvtpServerRequest&) {
        if (notified == 0) asked.arm();
        ++notified;
    };
    server.start();
    addClientThatIsServed();
    ASSERT_TRUE(eventually([&] { return asked.hasBegun(); }));
    for (int i = 2; i <= 3; ++i) addClientThatIsServed();     // these are silent for less long
    std::this_thread::sleep_for(20ms);                        // so long is the silence of the first, at least
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 1000);  // ten steps
    LogCapture log;
    RawClient fourth(server.name);
    const std::string step = "DEBUG Still waiting for thread to process QvPipe worker " + full(4);
    ASSERT_TRUE(eventually([&] { return log.count(step) >= 3; }));  // in the second step it was asked again
    EXPECT_TRUE(eventually([&] { return asked.hasEnded(); }));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(clients[1]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    asked.letGo();
    expectServedSoon(fourth);
    EXPECT_EQ(log.count(giveUpLine(1)), 1);
    EXPECT_EQ(log.count(giveUpLine(2)), 0);
}

/// While the fourth connection waits, the first worker whose turn ends is to give up. That is over when it has its
/// thread: while the fifth waits only the first worker is asked. The fourth rests as well, and ends by its time-out.
TEST_F(HeldWorker, IsTheOnlyOneAskedAlsoIfAnyWasDuringAnEarlierWait) {
    std::promise<void> release, end;
    server.handler.onNotify = [this, released = release.get_future().share(),
                               ended = end.get_future().share()](QvtpServerRequest&) {
        const int number = ++notified;
        if (number == 2) ended.wait();
        if (number != 1 && number != 4) return;
        released.wait();
        (number == 1 ? asked : other).arm();
    };
    server.start();
    for (int i = 1; i <= 3; ++i) addClientThatIsServed();
    std::atomic<int> waits{0};
    auto hook = std::make_unique<LogHook>(LogHook::LoggingLevel::INFO, [&](std::string_view line) {
        if (line.find("Waiting for thread") == std::string::npos || ++waits != 2) return;
        release.set_value();
        eventually([&] { return asked.hasBegun() && other.hasBegun(); });
        std::this_thread::sleep_for(5ms);  // the turn of the first is over
    });
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 20);
    RawClient fourth(server.name);
    fourth.write(NOTIFICATION);
    ASSERT_TRUE(eventually([&] { return waits == 1; }));
    clients[2]->close();
    ASSERT_TRUE(eventually([&] { return notified == 4; }));
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    RawClient fifth(server.name);
    ASSERT_TRUE(eventually([&] { return asked.hasEnded(); }));  // it was asked
    hook.reset();
    const LogCapture log;
    other.letGo();
    expectServedSoon(fifth);
    end.set_value();
    EXPECT_EQ(log.count(giveUpLine(4)), 0);
    EXPECT_EQ(
        log.count("DEBUG TimeoutException - " + full(4) + " timed out waiting for a request.  QvPipe read timeout."),
        1);
}

/// A busy client writes its next request just when its worker has answered. If that is large, an end of reading could
/// fall into it.
TEST_F(HeldWorker, GivesABusyClientAMomentForItsNextRequest) {
    std::promise<void> release;
    int posts = 0;
    server.handler.onPost = [&, released = release.get_future().share()](QvtpServerRequest& request,
                                                                         QvtpServerResponse& response) {
        const std::string body = bodyOf(request);
        response.setStatusCode(200);
        response.setBody(body.data(), body.size());
        response.send();
        if (++posts > 1) return;
        released.wait();
        asked.arm();
    };
    server.start();
    for (int i = 0; i < 3; ++i) clients.push_back(clientWithWorker());
    EXPECT_EQ(clients[0]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    const LogCapture log;
    RawClient fourth(server.name);
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Still waiting for thread to process QvPipe worker " + full(4)));
    std::this_thread::sleep_for(6ms);  // its turn is over, and everybody is asked
    release.set_value();
    ASSERT_TRUE(eventually([&] { return asked.hasBegun(); }));
    const std::string next = POST_HELLO;
    EXPECT_EQ(thrownBy([&] { clients[0]->write(next.substr(0, 10)); }), "nothing");
    asked.letGo();
    EXPECT_EQ(thrownBy([&] { clients[0]->write(next.substr(10)); }), "nothing");
    EXPECT_EQ(clients[0]->readToEnd(), HELLO_BACK);
    EXPECT_EQ(log.count(giveUpLine(1)), 1);
    EXPECT_EQ(fourth.exchange("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n", ""), "");
}

/// What the waits of this process have cost so far.
struct Cost {
    std::chrono::microseconds processorTime;
    long pauses;

    static Cost now() {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        const auto microseconds = [](const timeval& time) {
            return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
        };
        return {microseconds(usage.ru_utime) + microseconds(usage.ru_stime), usage.ru_nvcsw};
    }
};

TEST_F(RestingWorker, IsLookedForWithoutSpinning) {
    server.server.setMakeRoom(true);
    server.start();
    for (int i = 0; i < 3; ++i) clients.push_back(clientWithWorker());
    LogCapture log(LogCapture::LoggingLevel::INFO);
    RawClient fourth(server.name);
    ASSERT_TRUE(eventuallyLogs(log, "INFO Waiting for thread to process QvPipe worker " + full(4)));
    const Cost before = Cost::now();
    std::this_thread::sleep_for(150ms);
    EXPECT_LT(Cost::now().processorTime - before.processorTime, 50ms);
}

TEST_F(RestingWorker, SleepsAsLongAsItsClientIsSilentIfThereIsNoIdleTimeout) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 0);
    server.start();
    clients.push_back(clientWithWorker());
    EXPECT_EQ(clients[0]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    std::this_thread::sleep_for(10ms);  // it waits
    const Cost before = Cost::now();
    std::this_thread::sleep_for(200ms);
    EXPECT_LT(Cost::now().pauses - before.pauses, 60);  // 200 if it woke up each millisecond
}

long addressSpaceKb() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    statm >> pages;
    return pages * (::sysconf(_SC_PAGESIZE) / 1024);
}

TEST_F(RestingWorker, OfAHandlersExceptionLeavesNoBufferWhenItsClientHasGone) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer keeps what was freed";
    constexpr int SIZE_KB = 256 * 1024;  // of each of the two
    server.server.setOption(QvtpServer::BUFFER_SIZE, SIZE_KB * 1024);
    server.handler.onNotify = [](QvtpServerRequest&) { throw 1; };
    server.start();
    RawClient client(server.name);
    client.write(NOTIFICATION);
    ASSERT_TRUE(eventually(
        [&] { return server.server.totalRequestProcessors() == 1 && server.server.idleRequestProcessors() == 3; }));
    const long before = addressSpaceKb();
    server.server.setOption(QvtpServer::BUFFER_SIZE, 4096);
    client.close();
    EXPECT_TRUE(eventually([&] {
        reap();
        return addressSpaceKb() < before - SIZE_KB * 3 / 2;
    })) << before
        << " " << addressSpaceKb();
}

}  // namespace
}  // namespace qvtp_test
