#include "platform/BackEnd.h"
#include "server/Worker.h"

#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

constexpr int LONG_MS = 30000;  // for what is to end by itself

/// A server that ends without cutting anything off.
class Drain : public Worker {
  protected:
    ~Drain() override {
        letGo();
        server.stop();  // before what its handler uses
    }

    static std::string notify(const std::string& body) {
        return "NOTIFY /n QVTP/1.0\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    /// Makes every NOTIFY note its body, "first" only after letGo().
    void noteNotifications() {
        server.handler.onNotify = [this](QvtpServerRequest& request) {
            const std::string body = bodyOf(request);
            ++begun;
            if (body == "first") released.wait();
            const std::lock_guard<std::mutex> guard(mutex);
            notified.push_back(body);
        };
    }
    std::vector<std::string> notifications() {
        const std::lock_guard<std::mutex> guard(mutex);
        return notified;
    }
    void letGo() {
        if (!std::exchange(isReleased, true)) release.set_value();
    }
    /// Drains in the background, and returns when the server accepts no more.
    std::future<bool> drain(int milliseconds = LONG_MS) {
        auto draining =
            std::async(std::launch::async, [this, milliseconds] { return server.server.drain(milliseconds); });
        EXPECT_TRUE(eventually([&] { return !server.server.isRunning(); }));
        return draining;
    }
    static bool isPending(const std::future<bool>& draining) {
        return draining.wait_for(50ms) == std::future_status::timeout;
    }

    LogCapture log;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    bool isReleased = false;
    std::atomic<int> begun{0};
    std::mutex mutex;
    std::vector<std::string> notified;  // guarded by mutex
};

TEST_F(Drain, EndsAServerWithoutClientsAtOnce) {
    server.start();
    EXPECT_LT(elapsed([&] { EXPECT_TRUE(server.server.drain(LONG_MS)); }), 10s);
    EXPECT_FALSE(server.server.isRunning());
    server.stop();
    EXPECT_TRUE(log.contains("INFO QvtpServer " + server.name + " is stopped."));
}

TEST_F(Drain, HangsUpOnClientsThatAreSilent) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    server.start();
    const auto fresh = clientWithWorker();
    const auto served = clientWithWorker();
    EXPECT_EQ(served->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    std::this_thread::sleep_for(20ms);  // both wait in the system by now
    EXPECT_LT(elapsed([&] { EXPECT_TRUE(server.server.drain(LONG_MS)); }), 10s);
    EXPECT_EQ(fresh->readToEnd(), "");
    EXPECT_EQ(served->readToEnd(), "");
    EXPECT_EQ(log.count("DEBUG Drained " + full(1) + "."), 1);
    EXPECT_EQ(log.count("DEBUG Drained " + full(2) + "."), 1);
}

TEST_F(Drain, LetsAHandlerFinishAndItsAnswerArrive) {
    server.handler.onPost = [this](QvtpServerRequest&, QvtpServerResponse& response) {
        ++begun;
        released.wait();
        response.setStatusCode(200);
        response.setBody("hello", 5);
        response.send();
    };
    server.start();
    RawClient client(server.name);
    client.write(POST_HELLO);
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = drain();
    EXPECT_TRUE(isPending(draining));
    letGo();
    EXPECT_EQ(client.readToEnd(), HELLO_BACK);
    EXPECT_TRUE(draining.get());
}

TEST_F(Drain, ServesWhatHasArrivedBeforeIt) {
    noteNotifications();
    server.start();
    RawClient client(server.name);
    client.write(notify("first"));
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    client.write(notify("second") + notify("third"));
    auto draining = drain();
    letGo();
    EXPECT_TRUE(draining.get());
    EXPECT_THAT(notifications(), ElementsAre("first", "second", "third"));
}

TEST_F(Drain, ServesARequestThatIsStillArriving) {
    server.handler.onNotify = [this](QvtpServerRequest& request) {
        ++begun;
        notified.push_back(bodyOf(request));
    };
    server.start();
    const auto client = clientWithWorker();
    const std::string request = notify("whole");
    client->write(request.substr(0, request.size() - 2));
    ASSERT_TRUE(eventually([&] { return begun == 1; }));  // what is left of it may come late
    auto draining = drain();
    EXPECT_TRUE(isPending(draining));
    client->write(request.substr(request.size() - 2));
    EXPECT_TRUE(draining.get());
    EXPECT_THAT(notifications(), ElementsAre("whole"));
}

TEST_F(Drain, ServesAConnectionThatWaitsForAWorker) {
    noteNotifications();
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    server.start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 1; i <= 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        clients.back()->write(notify("first"));
        ASSERT_TRUE(eventually([&] { return begun == i; }));
    }
    RawClient fourth(server.name);
    fourth.write(notify("fourth"));
    ASSERT_TRUE(eventuallyLogs(log, "INFO Waiting for thread to process QvPipe worker " + full(4)));
    auto draining = drain();
    EXPECT_TRUE(isPending(draining));
    letGo();
    EXPECT_TRUE(draining.get());
    EXPECT_THAT(notifications(), ::testing::UnorderedElementsAre("first", "first", "first", "fourth"));
}

TEST_F(Drain, ReportsAConnectionThatWasNotAcceptedYet) {
    noteNotifications();
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    server.start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 1; i <= 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        clients.back()->write(notify("first"));
        ASSERT_TRUE(eventually([&] { return begun == i; }));
    }
    RawClient fourth(server.name);
    fourth.write(notify("fourth"));
    ASSERT_TRUE(eventuallyLogs(log, "INFO Waiting for thread to process QvPipe worker " + full(4)));
    RawClient fifth(server.name);  // the accept thread is busy with the fourth
    fifth.write(notify("fifth"));
    auto draining = drain();
    letGo();
    EXPECT_EQ(draining.get(), !backend::showsWaitingClients());
    EXPECT_THAT(notifications(), ::testing::UnorderedElementsAre("first", "first", "first", "fourth"));
}

TEST_F(Drain, AcceptsNoMore) {
    noteNotifications();
    server.start();
    RawClient client(server.name);
    client.write(notify("first"));
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = drain();
    bool isFirst = true;  // one that came before the drain began may be cut off by it
    EXPECT_TRUE(eventually([&] {
        QvPipe late;
        late.setConnectTimeout(100);
        const bool isRefused = thrownBy([&] { late.connect(server.name, true, true); }) != "nothing";
        isFirst = isFirst && isRefused;
        return isRefused;
    }));
    letGo();
    const bool isDone = draining.get();
    EXPECT_TRUE(isDone || !isFirst);
}

TEST_F(Drain, BreaksTheNextWriteOfAClientThatWasAnsweredWhereTheSystemCan) {
    server.handler.onPost = [this](QvtpServerRequest& request, QvtpServerResponse& response) {
        const std::string body = bodyOf(request);
        if (++begun == 1) released.wait();
        response.setStatusCode(200);
        response.setBody(body.data(), body.size());
        response.send();
        std::this_thread::sleep_for(50ms);  // the client is quicker than the end of the connection
    };
    server.start();
    RawClient client(server.name);
    client.write(POST_HELLO);
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = drain();
    ASSERT_TRUE(isPending(draining));
    letGo();
    EXPECT_EQ(client.read(std::string(HELLO_BACK).size()), HELLO_BACK);
    const std::string thrown = thrownBy([&] { client.write(POST_HELLO); });
    EXPECT_TRUE(draining.get());
    if (!backend::closesHalfOfAPipe()) return;  // it may be served there
    EXPECT_EQ(thrown, "BrokenPipeException: Pipe was closed at other end.");
    EXPECT_EQ(begun, 1);
}

TEST_F(Drain, EndsAtItsTimeAndCutsOffWhatIsLeft) {
    noteNotifications();
    server.start();
    RawClient client(server.name);
    client.write(notify("first"));
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    const auto time = elapsed([&] { EXPECT_FALSE(server.server.drain(150)); });
    EXPECT_GE(time, 145ms);
    EXPECT_LT(time, 10s);
    EXPECT_TRUE(eventuallyLogs(log, "DEBUG Stopping worker " + full()));
}

TEST_F(Drain, CutsOffAConnectionThatStillWaitsForAWorkerAtItsTime) {
    noteNotifications();
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    server.start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 1; i <= 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        clients.back()->write(notify("first"));
        ASSERT_TRUE(eventually([&] { return begun == i; }));
    }
    RawClient fourth(server.name);
    ASSERT_TRUE(eventuallyLogs(log, "INFO Waiting for thread to process QvPipe worker " + full(4)));
    EXPECT_FALSE(server.server.drain(100));
    EXPECT_EQ(fourth.readToEnd(), "");
    letGo();
}

TEST_F(Drain, ReportsARequestThatDidNotArriveInTime) {
    server.start();
    const auto client = clientWithWorker();
    client->write("POST /p QVTP/1.0\r\nContent-");
    std::this_thread::sleep_for(30ms);  // the worker is reading by then
    EXPECT_FALSE(server.server.drain(150));
}

TEST_F(Drain, ReportsARequestOfWhichOnlyAPartHadArrivedWhenReadingEnded) {
    server.handler.onPost = [this](QvtpServerRequest&, QvtpServerResponse& response) {
        ++begun;
        released.wait();
        response.sendError(200, "OK");
    };
    server.start();
    RawClient client(server.name);
    client.write("POST /p QVTP/1.0\r\nContent-Length: 0\r\n\r\nNOTIFY /n QVTP/1.0\r\nConte");
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = drain();
    ASSERT_TRUE(isPending(draining));
    letGo();
    EXPECT_FALSE(draining.get());
}

TEST_F(Drain, ReportsARequestWhoseBodyTheHandlerWaitedForInVain) {
    std::atomic<int> failed{0};
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse&) {
        ++begun;
        released.wait();
        if (thrownBy([&] { bodyOf(request); }) != "nothing") ++failed;
    };
    server.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 50);
    server.start();
    RawClient client(server.name);
    client.write("POST /p QVTP/1.0\r\nContent-Length: 5\r\n\r\nhe");
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = drain();
    letGo();
    EXPECT_FALSE(draining.get());
    EXPECT_EQ(failed, 1);
}

TEST_F(Drain, CountsARequestAsServedThatWasAnsweredAndEndedItsConnection) {
    const std::string large = "POST /p QVTP/1.0\r\nContent-Length: 300000\r\n\r\nhe";
    const std::string unknown = "PUT /p QVTP/1.0\r\nContent-Length: 0\r\n\r\n";
    for (const std::string& second : {std::string(POST_HELLO), large, unknown}) {
        TestServer other;
        std::promise<void> go;
        std::atomic<int> calls{0};
        const int last = second == unknown ? 1 : 2;  // the drain comes while the handler has this one
        other.server.setUnhandledExceptionPolicy(QvtpServer::ANSWER);
        other.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse& response) {
            const int call = ++calls;
            if (call == last) go.get_future().wait();
            if (call == 2 && second == POST_HELLO) throw 1;
            response.sendError(200, "OK");
        };
        other.start();
        RawClient client(other.name);
        client.write(POST_HELLO + second);
        ASSERT_TRUE(eventually([&] { return calls == last; }));
        auto draining = std::async(std::launch::async, [&] { return other.server.drain(LONG_MS); });
        EXPECT_TRUE(eventually([&] { return !other.server.isRunning(); }));
        go.set_value();
        EXPECT_TRUE(draining.get()) << second;
        const std::string answered = client.readToEnd();
        EXPECT_EQ(answered.find(" 500 ") != std::string::npos, second == POST_HELLO) << answered;
        other.stop();
    }
}

TEST_F(Drain, ReportsARequestAfterOneThatEndedItsConnection) {
    server.server.setUnhandledExceptionPolicy(QvtpServer::ANSWER);
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse&) {
        ++begun;
        released.wait();
        throw 1;
    };
    server.start();
    RawClient client(server.name);
    client.write(std::string(POST_HELLO) + POST_HELLO);
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = drain();
    letGo();
    EXPECT_FALSE(draining.get());
    EXPECT_EQ(begun, 1);
}

TEST_F(Drain, BeforeRunMakesItReturnAtOnceAndGivesTheNameUp) {
    EXPECT_TRUE(server.server.drain(LONG_MS));
    EXPECT_LT(elapsed([&] { server.server.run(); }), 10s);
    EXPECT_FALSE(server.server.isRunning());
    QvtpServer other(server.name, 1);
    EXPECT_FALSE(log.contains("ERROR Failed to create the QvtpServer with the named pipe " + server.name));
    EXPECT_TRUE(log.contains("INFO QvtpServer " + server.name + " is stopped."));
}

TEST_F(Drain, EndsAServerWheneverItComes) {
    for (int round = 0; round < 60; ++round) {
        TestServer other;
        auto running = std::async(std::launch::async, [&] { other.server.run(); });
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(round * 10);
        while (std::chrono::steady_clock::now() < until) {
        }
        EXPECT_TRUE(other.server.drain(LONG_MS));
        ASSERT_EQ(running.wait_for(20s), std::future_status::ready) << round;
    }
}

TEST_F(Drain, HasNothingToDoAfterAStop) {
    server.start();
    server.stop();
    EXPECT_TRUE(server.server.drain(LONG_MS));
    EXPECT_TRUE(server.server.drain(LONG_MS));
}

TEST_F(Drain, IsEndedByAShutdown) {
    noteNotifications();
    server.start();
    RawClient client(server.name);
    client.write(notify("first"));
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = drain(0);
    EXPECT_TRUE(isPending(draining));
    EXPECT_FALSE(server.server.drain(LONG_MS));  // another thread does
    EXPECT_TRUE(isPending(draining));
    server.server.shutdown();
    EXPECT_FALSE(draining.get());
}

TEST_F(Drain, IsFalseAfterAShutdownAlsoWhenTheHandlerEndsAtOnce) {
    for (int round = 0; round < 40; ++round) {
        TestServer other;
        std::promise<void> end;
        const std::shared_future<void> ended = end.get_future().share();
        std::atomic<bool> hasBegun{false};
        other.handler.onNotify = [&](QvtpServerRequest&) {
            hasBegun = true;
            ended.wait();
        };
        other.start();
        RawClient client(other.name);
        client.write(notify("first"));
        ASSERT_TRUE(eventually([&] { return hasBegun.load(); }));
        auto draining = std::async(std::launch::async, [&] { return other.server.drain(0); });
        ASSERT_TRUE(eventually([&] { return !other.server.isRunning(); }));
        other.server.shutdown();
        end.set_value();
        EXPECT_FALSE(draining.get()) << round;
        other.stop();
    }
}

TEST_F(Drain, HandsNoPartOfARequestToTheHandlerWhenItComesWhileOneBegins) {
    const std::string head = "POST /p QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n";
    const std::string tail = "6\r\nsecond\r\n0\r\n\r\n";
    const auto spin = [](int us) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(us);
        while (std::chrono::steady_clock::now() < until) {
        }
    };
    for (int round = 0; round < 100; ++round) {
        TestServer other;
        std::atomic<int> whole{0};
        std::atomic<int> parts{0};
        other.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
            std::string body;
            thrownBy([&] { body = bodyOf(request); });
            ++(body == "firstsecond" ? whole : parts);
            response.sendError(200, "OK");
        };
        other.start();
        RawClient client(other.name);
        client.write(head + tail);
        ASSERT_TRUE(eventually([&] { return whole == 1; }));
        client.read(10);
        std::thread writing([&] {
            thrownBy([&] {
                client.write(head);
                spin(900);
                client.write(tail);
            });
        });
        spin(round * 3 / 2);
        const bool drained = other.server.drain(LONG_MS);
        writing.join();
        other.stop();
        ASSERT_EQ(parts, 0) << "round " << round << ", drained: " << drained;
    }
}

TEST_F(Drain, LosesNothingWhileClientsCallAllTheTime) {
    std::atomic<int> handled{0};
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        ++handled;
        const std::string body = bodyOf(request);
        response.setStatusCode(200);
        response.setBody(body.data(), body.size());
        response.send();
    };
    server.start();
    std::atomic<int> answered{0};
    std::vector<std::future<std::string>> callers;
    for (int i = 0; i < 4; ++i) {
        callers.push_back(std::async(std::launch::async, [&] {
            QvtpClient caller;
            std::string thrown = "nothing";
            while (thrown == "nothing") {
                PostRequest request(&caller, server.name, "/p");
                request.setBody("hello", 5);
                thrown = thrownBy([&] {
                    const std::unique_ptr<QvtpResponse> response(request.execute());
                    if (bodyOf(*response) == "hello") ++answered;
                });
            }
            return thrown;
        }));
    }
    ASSERT_TRUE(eventually([&] { return handled > 100; }));
    const bool drained = server.server.drain(LONG_MS);
    for (auto& caller : callers) EXPECT_NE(caller.get(), "nothing");  // nobody serves them any more
    if (!backend::closesHalfOfAPipe()) return;                        // a write may be lost there
    EXPECT_TRUE(drained);
    EXPECT_EQ(answered, handled);
}

}  // namespace
}  // namespace qvtp_test
