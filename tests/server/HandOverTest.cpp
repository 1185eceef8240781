#include "platform/BackEnd.h"
#include "server/Worker.h"

#include <qvtp/client/NotifyRequest.h>
#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>

#include <Poco/ErrorHandler.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace qvtp_test {
namespace {

/// What becomes of requests when a connection waits for a thread.
class HandOver : public Worker {
  protected:
    HandOver() {
        server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
        server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);  // a step of the wait is a minute
    }

    ~HandOver() override { server.stop(); }  // before what its handler uses

    /// Connects clients that each have a worker, which waits for its first request.
    void occupy(int count) {
        const int before = server.server.totalRequestProcessors();
        for (int i = 1; i <= count; ++i) {
            clients.push_back(std::make_unique<RawClient>(server.name));
            ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == before + i; }));
        }
        std::this_thread::sleep_for(6ms);  // their turns are over
    }
    std::unique_ptr<RawClient> connectAndWait(int number) {
        auto client = std::make_unique<RawClient>(server.name);
        EXPECT_TRUE(eventuallyLogs(log, "DEBUG Still waiting for thread to process QvPipe worker " + full(number)));
        return client;
    }
    static std::string notify(const std::string& body) {
        return "NOTIFY /n QVTP/1.0\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    std::string giveUpLine(int number) const {
        return "DEBUG Give up " + full(number) + " for a new request waiting for a worker thread.";
    }
    /// Makes every NOTIFY count its body, the first one only after `release`.
    void countNotifications(std::shared_future<void> release) {
        server.handler.onNotify = [this, release](QvtpServerRequest& request) {
            const std::string body = bodyOf(request);
            if (body == "first") release.wait();
            const std::lock_guard<std::mutex> guard(mutex);
            notified.push_back(body);
        };
    }
    std::vector<std::string> notifications() {
        const std::lock_guard<std::mutex> guard(mutex);
        return notified;
    }

    LogCapture log;
    std::vector<std::unique_ptr<RawClient>> clients;
    std::mutex mutex;
    std::vector<std::string> notified;  // guarded by mutex
};

TEST_F(HandOver, ComesAsSoonAsAWorkerEnds) {
    server.start();
    occupy(3);
    const auto fourth = connectAndWait(4);
    clients[1]->close();
    EXPECT_LT(elapsed([&] { EXPECT_EQ(fourth->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK); }), 10s);
    EXPECT_EQ(log.count("DEBUG Still waiting for thread to process QvPipe worker " + full(4)), 1);
    // The step that was begun counts as a whole.
    EXPECT_TRUE(eventuallyLogs(log, "INFO Done waiting for thread to process QvPipe worker " + full(4)));
}

TEST_F(HandOver, ComesAsSoonAsAHandlersExceptionFreesAThread) {
    server.handler.onNotify = [](QvtpServerRequest&) { throw 1; };
    server.start();
    occupy(3);
    const auto fourth = connectAndWait(4);
    clients[1]->write(notify(""));
    EXPECT_LT(elapsed([&] { EXPECT_EQ(fourth->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK); }), 10s);
}

/// Holds a thread of the pool that a handler's exception has left, before the pool has it back.
class HeldThread : public Poco::ErrorHandler {
  public:
    HeldThread() : before_(Poco::ErrorHandler::set(this)) {}
    ~HeldThread() override { Poco::ErrorHandler::set(before_); }
    HeldThread(const HeldThread&) = delete;
    HeldThread& operator=(const HeldThread&) = delete;

    void exception() override {
        isHeld = true;
        letGo.get_future().wait();
    }

    std::atomic<bool> isHeld{false};
    std::promise<void> letGo;

  private:
    Poco::ErrorHandler* const before_;
};

TEST_F(HandOver, ComesToAThreadThatIsOnItsWayBackToThePool) {
    HeldThread held;
    server.handler.onNotify = [](QvtpServerRequest&) { throw 1; };
    server.start();
    occupy(3);
    clients[1]->write(notify(""));
    ASSERT_TRUE(eventually([&] { return held.isHeld.load(); }));
    const auto fourth = connectAndWait(4);
    std::this_thread::sleep_for(20ms);  // it waits
    held.letGo.set_value();
    EXPECT_LT(elapsed([&] { EXPECT_EQ(fourth->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK); }), 10s);
    server.stop();  // before the thread's keeper goes
}

TEST_F(HandOver, ServesRequestsThatHaveArrivedAlready) {
    std::promise<void> release;
    countNotifications(release.get_future().share());
    server.start();
    occupy(3);
    clients[0]->write(notify("first"));
    const auto fourth = connectAndWait(4);
    clients[0]->write(notify("second") + notify("third"));
    clients[0]->write(POST_HELLO);
    release.set_value();
    EXPECT_EQ(clients[0]->read(std::string(HELLO_BACK).size()), HELLO_BACK);
    EXPECT_EQ(clients[0]->readToEnd(), "");
    EXPECT_THAT(notifications(), ::testing::ElementsAre("first", "second", "third"));
    EXPECT_EQ(fourth->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(log.count(giveUpLine(1)), 1);
}

TEST_F(HandOver, ServesARequestThatHasArrivedInPartWhenTheRestComes) {
    std::promise<void> release;
    countNotifications(release.get_future().share());
    server.start();
    occupy(3);
    clients[0]->write(notify("first"));
    const auto fourth = connectAndWait(4);
    const std::string second = notify("second");
    clients[0]->write(second.substr(0, 20));
    release.set_value();
    ASSERT_TRUE(eventually([&] { return notifications().size() == 1; }));
    clients[0]->write(second.substr(20));
    EXPECT_EQ(clients[0]->readToEnd(), "");
    EXPECT_THAT(notifications(), ::testing::ElementsAre("first", "second"));
}

TEST_F(HandOver, ComesFromTheNextWorkerThatEndsARequestIfTheFirstServesOn) {
    std::promise<void> letFirst, letOther, letSecond;
    std::atomic<int> begun{0};
    server.handler.onNotify = [&](QvtpServerRequest& request) {
        const std::string body = bodyOf(request);
        ++begun;
        (body == "first" ? letFirst : body == "other" ? letOther : letSecond).get_future().wait();
    };
    server.start();
    occupy(3);
    clients[0]->write(notify("first"));
    clients[1]->write(notify("other"));
    ASSERT_TRUE(eventually([&] { return begun == 2; }));
    const auto fourth = connectAndWait(4);
    clients[0]->write(notify("second"));
    std::this_thread::sleep_for(5ms);  // it is asked for
    letFirst.set_value();
    ASSERT_TRUE(eventually([&] { return begun == 3; }));
    letOther.set_value();
    EXPECT_LT(elapsed([&] { EXPECT_EQ(fourth->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK); }), 10s);
    letSecond.set_value();
    server.stop();  // before what the handlers wait for goes
}

/// Requests that are served longer than a turn of theirs while a connection waits.
class SlowHandOver : public HandOver {
  protected:
    SlowHandOver() {
        server.handler.onNotify = [this](QvtpServerRequest& request) {
            const std::string body = bodyOf(request);
            if (body == "first") released.wait();
            if (body == "last") ended.wait();
            if (body != "third") std::this_thread::sleep_for(8ms);
            ++served;
        };
    }
    ~SlowHandOver() override { server.stop(); }  // before what its handler uses
    /// The worker of the first client is given a second request and `more` in time. Returns the fourth client.
    std::unique_ptr<RawClient> handOverWith(const std::string& second, const std::string& more) {
        server.start();
        occupy(3);
        clients[0]->write(notify("first"));
        auto fourth = connectAndWait(4);
        clients[0]->write(notify(second) + more);
        release.set_value();
        return fourth;
    }
    void expectRestIsWaitedFor(const std::string& second) {
        const std::string third = notify("third");
        const auto fourth = handOverWith(second, third.substr(0, 20));
        ASSERT_TRUE(eventually([&] { return served == 2; }));
        std::this_thread::sleep_for(PENDING);
        EXPECT_EQ(thrownBy([&] { clients[0]->write(third.substr(20)); }), "nothing");
        EXPECT_EQ(clients[0]->readToEnd(), "");
        EXPECT_EQ(served, 3);
    }

    std::promise<void> release, end;
    const std::shared_future<void> released = release.get_future().share();
    const std::shared_future<void> ended = end.get_future().share();
    std::atomic<int> served{0};
};

TEST_F(SlowHandOver, WaitsForTheRestOfARequestThatFollowsALargeOne) {
    expectRestIsWaitedFor(std::string(20000, 'x'));
}

TEST_F(SlowHandOver, WaitsForTheRestOfARequestThatFollowsASmallOne) {
    expectRestIsWaitedFor("second");
}

TEST_F(SlowHandOver, BreaksTheNextWriteBetweenTwoRequestsOfAFlood) {
    const auto fourth = handOverWith("second", notify("more") + "\r\n" + notify("more") + notify("last"));
    // A step of the wait is a minute: the worker ends the reading before that, and serves what has come by then.
    if (backend::closesHalfOfAPipe()) {
        EXPECT_TRUE(eventually([&] { return thrownBy([&] { clients[0]->write(notify("late")); }) != "nothing"; }));
    }
    end.set_value();
    EXPECT_EQ(clients[0]->readToEnd(), "");
    EXPECT_GE(served, 5);
}

/// One that has always arrived in part, so that reading ends in the middle of a request.
TEST_F(SlowHandOver, EndsAFloodAfterAStep) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 2000);
    const std::string first = notify("flood").substr(0, 20);
    const std::string rest = notify("flood").substr(20);
    const auto fourth = handOverWith("second", first);
    const auto time = elapsed([&] {
        EXPECT_TRUE(eventually([&] { return thrownBy([&] { clients[0]->write(rest + first); }) != "nothing"; }));
    });
    EXPECT_LT(time, 10s);
    EXPECT_EQ(fourth->exchange(notify(""), ""), "");
}

TEST_F(HandOver, DropsARequestThatCannotBecomeWholeAnyMore) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    countNotifications(released);
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse& response) {
        released.wait();
        response.setBody("", 0);
        response.send();
    };
    server.start();
    occupy(3);
    clients[0]->write("POST /p QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    const auto fourth = connectAndWait(4);
    // Reading ends with the answer: what is there by then is served if it is whole.
    clients[0]->write(notify("second") +
                      "NOTIFY /n QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nthird\r\n0\r\n\r\n");
    clients[0]->write("NOTIFY /n QVTP/1.0\r\nContent-Length: 100\r\n\r\nonly this");
    release.set_value();
    clients[0]->readToEnd();
    EXPECT_THAT(notifications(), ::testing::ElementsAre("second", "third"));
    EXPECT_EQ(log.count(giveUpLine(1)), 1);
    EXPECT_EQ(fourth->exchange("NOTIFY /x QVTP/1.0\r\nContent-Length: 0\r\n\r\n", ""), "");
}

TEST_F(HandOver, SkipsWhatTheHandlerLeftOfABodyAndServesTheNext) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::atomic<int> posts{0};
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse& response) {
        if (++posts == 1) released.wait();
        response.setBody("", 0);
        response.send();
    };
    server.start();
    occupy(3);
    clients[0]->write("POST /p QVTP/1.0\r\nContent-Length: 5000\r\n\r\n" + std::string(5000, 'x') +
                      "POST /p QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    const auto fourth = connectAndWait(4);
    release.set_value();
    clients[0]->readToEnd();
    EXPECT_EQ(posts, 2);
    EXPECT_EQ(log.count(giveUpLine(1)), 1);
}

TEST_F(HandOver, BreaksTheNextWriteOfTheClientWhichSendsAgainUnseen) {
    server.start();
    QvtpClient caller;
    const auto post = [&] {
        PostRequest request(&caller, server.name, "/p");
        request.setBody("hello", 5);
        const std::unique_ptr<QvtpResponse> response(request.execute());
        return bodyOf(*response);
    };
    EXPECT_EQ(post(), "hello");
    ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == 1; }));  // it may answer before
    occupy(2);
    const auto waiting = connectAndWait(4);
    EXPECT_EQ(post(), "hello");  // gives its thread up
    EXPECT_TRUE(eventuallyLogs(log, giveUpLine(1)));
    clients.clear();
    EXPECT_EQ(post(), "hello");
    const char line[] =
        "DEBUG Lost connection to server, attempt request with new connection. Pipe was closed at other end.";
    EXPECT_EQ(log.count(line), 1);
}

TEST_F(HandOver, ReachesEverybodyWhenAllKeepTheirPipesAfterOneRequest) {
    constexpr int CALLERS = 20;
    // Every request lasts until a connection waits: a client that was silent before anybody waited would keep its
    // worker.
    const auto hasWorker = [&](int number) {
        return log.text().find("Activated worker thread " + full(number) + " (") != std::string::npos;
    };
    const auto somebodyWaits = [&] {
        for (int number = 1; number <= CALLERS; ++number) {
            if (!hasWorker(number)) {
                return log.contains("INFO Waiting for thread to process QvPipe worker " + full(number));
            }
        }
        return true;  // everybody has had a worker
    };
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        EXPECT_TRUE(eventually(somebodyWaits));
        const std::string body = bodyOf(request);
        response.setBody(body.data(), body.size());
        response.send();
    };
    server.start();
    std::vector<QvtpClient> callers(CALLERS);
    std::vector<std::future<std::string>> answers;
    for (int i = 0; i < CALLERS; ++i) {
        answers.push_back(std::async(std::launch::async, [this, i, caller = &callers[static_cast<std::size_t>(i)]] {
            const std::string body = std::to_string(i);
            PostRequest request(caller, server.name, "/p");
            request.setBody(body.data(), body.size());
            const std::unique_ptr<QvtpResponse> response(request.execute());
            return bodyOf(*response);
        }));
    }
    for (int i = 0; i < CALLERS; ++i) EXPECT_EQ(answers[static_cast<std::size_t>(i)].get(), std::to_string(i));
}

TEST_F(HandOver, DoesNotCutOffClientsThatWereSilentBefore) {
    server.start();
    occupy(3);
    for (const auto& client : clients) EXPECT_EQ(client->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    std::this_thread::sleep_for(SETTLED);
    const auto fourth = connectAndWait(4);
    std::this_thread::sleep_for(PENDING);
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(log.count(giveUpLine(i)), 0);
    EXPECT_EQ(clients[2]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(clients[2]->readToEnd(), "");
    EXPECT_EQ(fourth->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(clients[0]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
}

TEST_F(HandOver, LeavesEveryClientItsTurn) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 13000);
    server.start();
    std::atomic<bool> stop{false};
    std::vector<std::future<void>> callers;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 6; ++i) {
        callers.push_back(std::async(std::launch::async, [this, &stop] {
            QvtpClient client;
            while (!stop) {
                PostRequest request(&client, server.name, "/p");
                request.setBody("x", 1);
                const std::string thrown = thrownBy([&] { std::unique_ptr<QvtpResponse>(request.execute()); });
                EXPECT_TRUE(thrown == "nothing" || !backend::closesHalfOfAPipe()) << thrown;
            }
        }));
    }
    std::this_thread::sleep_for(300ms);
    stop = true;
    for (auto& caller : callers) caller.get();
    const auto turns = (std::chrono::steady_clock::now() - start) / 5ms + 1;
    server.stop();
    int handOvers = 0;
    for (const std::string& line : log.messages()) handOvers += line.rfind("DEBUG Give up ", 0) == 0;
    EXPECT_GT(handOvers, 0);
    EXPECT_LE(handOvers, 3 * turns);
}

TEST_F(HandOver, ServesWhatComesWhileTheIdleTimeoutEnds) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 20);
    std::atomic<int> done{0};
    server.handler.onNotify = [&](QvtpServerRequest&) { ++done; };
    server.start();
    QvtpClient client;
    constexpr int COUNT = 150;
    for (int i = 0; i < COUNT; ++i) {
        NotifyRequest request(&client, server.name, "/n");
        request.setBody("x", 1);
        request.execute();
        std::this_thread::sleep_for(20ms + std::chrono::microseconds(i * 10 - 500));
    }
    // Where the reading cannot be ended there is a moment in which a write is lost.
    const int least = backend::closesHalfOfAPipe() ? COUNT : COUNT * 9 / 10;
    EXPECT_TRUE(eventually([&] { return done >= least; })) << done;
}

}  // namespace
}  // namespace qvtp_test
