#include "server/Worker.h"

#include <Poco/Thread.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <vector>

namespace qvtp_test {
namespace {

class WorkerThreads : public Worker {
  protected:
    /// Connects clients that each have a worker, which waits for its first request: one that has just answered may
    /// still be about to look whether it is to give up its thread.
    void occupy(int count) {
        for (int i = 1; i <= count; ++i) {
            clients.push_back(std::make_unique<RawClient>(server.name));
            ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == i; }));
        }
    }
    /// Lets a connection wait for a thread for one step of this length. Whether the end of the wait is logged at INFO.
    bool isEndOfWaitLogged(int stepMs) {
        server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
        server.server.setOption(QvtpServer::IDLE_TIMEOUT, stepMs * 10);
        server.start();
        occupy(3);
        LogCapture log(LogCapture::LoggingLevel::INFO);
        RawClient fourth(server.name);
        EXPECT_TRUE(eventuallyLogs(log, "INFO Waiting for thread to process QvPipe worker " + full(4)));
        clients.clear();
        EXPECT_EQ(fourth.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
        server.stop();
        const bool isLogged = log.contains("INFO Done waiting for thread to process QvPipe worker " + full(4));
        const char advice[] = "INFO Increase the MAX_REQUEST_PROCESSORS value if this propelem persists.";
        EXPECT_EQ(log.contains(advice), isLogged);
        return isLogged;
    }
    std::vector<std::unique_ptr<RawClient>> clients;
};

TEST_F(WorkerThreads, GrowWithoutLimitWhenNoneIsSet) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 0);
    server.start();
    occupy(12);
    EXPECT_EQ(server.server.totalRequestProcessors(), 12);
    EXPECT_EQ(server.server.idleRequestProcessors(), 1);  // 5, and 2 more each time all were busy
}

TEST_F(WorkerThreads, GrowNoSoonerThanAllAreBusy) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 0);
    server.start();
    occupy(5);
    EXPECT_EQ(server.server.idleRequestProcessors(), 0);
}

TEST_F(WorkerThreads, AreNamedAfterTheirWorkers) {
    std::promise<std::string> name;
    server.handler.onNotify = [&](QvtpServerRequest&) { name.set_value(Poco::Thread::current()->getName()); };
    server.start();
    RawClient client(server.name);
    client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    EXPECT_THAT(name.get_future().get(), ::testing::StartsWith(full() + " ("));
    server.stop();
}

TEST_F(WorkerThreads, AreAtLeastThree) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 1);
    server.start();
    occupy(3);
    EXPECT_EQ(server.server.totalRequestProcessors(), 3);
    EXPECT_EQ(server.server.idleRequestProcessors(), 0);
}

TEST_F(WorkerThreads, AreGivenUpBetweenRequestsForAConnectionThatWaits) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 20000);
    server.start();
    occupy(3);
    LogCapture log;
    RawClient fourth(server.name);
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Still waiting for thread to process QvPipe worker " + full(4)));
    EXPECT_EQ(log.count("INFO Waiting for thread to process QvPipe worker " + full(4)), 1);
    EXPECT_EQ(clients[1]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(clients[1]->readToEnd(), "");
    EXPECT_EQ(fourth.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    EXPECT_TRUE(log.contains("DEBUG Give up " + full(2) + " for a new request waiting for a worker thread."));
    EXPECT_TRUE(eventuallyLogs(log, "INFO Done waiting for thread to process QvPipe worker " + full(4)));
    EXPECT_TRUE(eventuallyLogs(log, "INFO Increase the MAX_REQUEST_PROCESSORS value if this propelem persists."));
    EXPECT_TRUE(eventuallyLogs(log, "DEBUG Activated worker thread " + full(4) + " (3)."));
    EXPECT_EQ(clients[0]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);  // the flag is taken back
    EXPECT_EQ(clients[0]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    server.stop();
    EXPECT_NE(log.text().find("    Total waits for thread:    1\n"), std::string::npos);
    EXPECT_NE(log.text().find("    Peak number of threads:    3\n"), std::string::npos);
}

TEST_F(WorkerThreads, AreWaitedForWithoutALineAtInfoForTwoSeconds) {
    EXPECT_FALSE(isEndOfWaitLogged(2000));
}

TEST_F(WorkerThreads, AreWaitedForWithALineAtInfoFrom2001Milliseconds) {
    EXPECT_TRUE(isEndOfWaitLogged(2001));
}

TEST_F(WorkerThreads, AreWaitedForInStepsOfAMillisecondWithoutAnIdleTimeout) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 0);
    server.start();
    occupy(3);
    LogCapture log;
    RawClient fourth(server.name);
    ASSERT_TRUE(eventually([&] {
        return log.count("DEBUG Still waiting for thread to process QvPipe worker " + full(4)) >= 3;
    })) << log.text().substr(0, 2500);
    EXPECT_EQ(log.count("INFO Waiting for thread to process QvPipe worker " + full(4)), 1);
    clients.clear();
    EXPECT_EQ(fourth.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
}

TEST_F(WorkerThreads, AreNotWaitedForWhenTheServerStops) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);  // a step is a minute
    server.start();
    occupy(3);
    LogCapture log;
    RawClient fourth(server.name);
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Still waiting for thread to process QvPipe worker " + full(4)));
    EXPECT_LT(elapsed([&] { server.stop(); }), 30s);
    EXPECT_EQ(fourth.readToEnd(), "");
    EXPECT_TRUE(log.contains("DEBUG Deleting worker " + full(4)));
}

TEST_F(WorkerThreads, AreStoppedWithTheServer) {
    server.start();
    occupy(2);
    LogCapture log;
    server.stop();
    EXPECT_TRUE(log.contains("DEBUG Stopping worker " + full(1)));
    // Whether a worker waits already or is about to, nothing about its end is an error.
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos);
    EXPECT_TRUE(log.contains("DEBUG Deleting worker " + full(1)));
    EXPECT_TRUE(log.contains("DEBUG Deleting worker " + full(2)));
    EXPECT_EQ(server.server.totalRequestProcessors(), 0);
    EXPECT_EQ(clients[0]->readToEnd(), "");
}

TEST_F(WorkerThreads, SayThatTheirReadsWereAbortedWhenTheyAreStopped) {
    server.start();
    occupy(1);
    std::this_thread::sleep_for(50ms);  // the worker waits
    LogCapture log;
    server.stop();
    EXPECT_EQ(log.count("DEBUG InterruptedException - " + full(1) + ". QvPipe read aborted."), 1);
    EXPECT_EQ(log.text().find("WARN"), std::string::npos);
}

TEST_F(WorkerThreads, WaitForTheirClientsWithoutLimitWhenTheIdleTimeoutIsNegative) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, -1);
    server.start();
    RawClient client(server.name);
    std::this_thread::sleep_for(PENDING);
    EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
}

TEST_F(WorkerThreads, AreStoppedAtOnceAlsoWhenTheyHaveHardlyBegun) {
    for (int round = 0; round < 30; ++round) {
        TestServer brief;
        brief.start();
        const RawClient client(brief.name);
        ASSERT_TRUE(eventually([&] { return brief.server.totalRequestProcessors() == 1; }));
        EXPECT_LT(elapsed([&] { brief.stop(); }), 3s);
    }
}

TEST(StuckHandler, IsLeftAloneWhenTheServerStopsAndComesBackLater) {
    std::promise<void> release;
    std::promise<std::string> outcome;
    const std::shared_future<void> released = release.get_future().share();
    std::unique_ptr<RawClient> client;
    TestHandler handler;  // a handler outlives its server, and this one is still busy then
    handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse& response) {
        released.wait();
        response.setBody("x", 1);
        outcome.set_value(thrownBy([&] { response.send(); }));
    };
    {
        TestServer server;
        server.server.setHandler(&handler);
        server.start();
        client = std::make_unique<RawClient>(server.name);
        LogCapture log;
        client->write(POST_HELLO);
        ASSERT_TRUE(eventually(
            [&] { return log.contains("DEBUG Begin processing of POST request (" + server.name + "/Worker-1)."); }));
        EXPECT_GE(elapsed([&] { server.stop(); }), 13500ms);  // ten of the pool's, and forty steps of 100 ms
        EXPECT_TRUE(log.contains("INFO ************* Worker thread not deleted: Worker-1"));
        EXPECT_EQ(server.server.idleRequestProcessors(), 5);  // its thread does not count any more
    }
    release.set_value();
    EXPECT_EQ(outcome.get_future().get(), "QvPipeException: Pipe write failed");
    EXPECT_EQ(client->readToEnd(), "");
}

TEST_F(WorkerThreads, MayBeAskedForByAHandlerDuringTheStop) {
    std::promise<void> begun;
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse&) {
        begun.set_value();
        // The stop meets the read, or comes before it.
        EXPECT_THAT(thrownBy([&] { bodyOf(request); }), ::testing::AnyOf("InterruptedException: QvPipe read aborted.",
                                                                         "QvPipeException: QvPipe read failed."));
        // The server waits for this thread by now, or will in a moment.
        const auto end = std::chrono::steady_clock::now() + PENDING;
        while (std::chrono::steady_clock::now() < end) {
            server.server.idleRequestProcessors();
            server.server.totalRequestProcessors();
        }
    };
    server.start();
    RawClient client(server.name);
    client.write("POST /x QVTP/1.0\r\nContent-Length: 5\r\n\r\n");
    begun.get_future().wait();
    EXPECT_LT(elapsed([&] { server.stop(); }), 5s);
    EXPECT_EQ(server.server.idleRequestProcessors(), 5);  // the threads are back
}

}  // namespace
}  // namespace qvtp_test
