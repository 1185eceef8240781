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
#include <string>
#include <thread>
#include <vector>

namespace qvtp_test {
namespace {

/// Clients that are mostly silent, and a server whose time-outs never end them.
class MakeRoom : public Worker {
  protected:
    MakeRoom() {
        server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
        server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);  // a step of the wait is a minute
        server.server.setMakeRoom(true);
    }
    ~MakeRoom() override { server.stop(); }  // before what its handler uses

    /// Connects a client that has sent one request.
    void addSilentClient() {
        clients.push_back(std::make_unique<RawClient>(server.name));
        EXPECT_EQ(clients.back()->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    }
    int countOfGiveUps(int number) const {
        return log.count("DEBUG Give up " + full(number) + " for a new request waiting for a worker thread.");
    }

    LogCapture log;
    std::vector<std::unique_ptr<RawClient>> clients;
};

TEST_F(MakeRoom, LetsManySilentClientsShareFewWorkers) {
    server.start();
    const auto time = elapsed([&] {
        for (int i = 0; i < 12; ++i) addSilentClient();
    });
    EXPECT_LT(time, 15s);
    EXPECT_EQ(log.count("DEBUG Still waiting for thread to process QvPipe worker " + full(12)), 1);
}

TEST_F(MakeRoom, TakesTheClientThatHasBeenSilentForLongest) {
    server.start();
    for (int i = 0; i < 3; ++i) {
        addSilentClient();
        std::this_thread::sleep_for(20ms);  // what is tested is the order of silences
    }
    EXPECT_EQ(clients[0]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);  // the second has been silent for longest now
    std::this_thread::sleep_for(SETTLED);
    addSilentClient();
    EXPECT_EQ(countOfGiveUps(2), 1);
    EXPECT_EQ(countOfGiveUps(1) + countOfGiveUps(3), 0);
    EXPECT_EQ(clients[1]->readToEnd(), "");
    addSilentClient();
    EXPECT_EQ(countOfGiveUps(3), 1);
    EXPECT_EQ(countOfGiveUps(1), 0);
}

TEST_F(MakeRoom, TakesNobodyBefore20MillisecondsOfSilence) {
    server.start();
    for (int i = 0; i < 2; ++i) {  // these can make no room
        clients.push_back(std::make_unique<RawClient>(server.name));
        ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == i + 1; }));
    }
    RawClient third(server.name);
    third.write(POST_HELLO);
    // Its silence begins after the first of these answers, at the earliest.
    EXPECT_EQ(third.read(std::string(HELLO_BACK).size()), HELLO_BACK);
    const auto time = elapsed([&] {
        EXPECT_EQ(third.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
        addSilentClient();
    });
    EXPECT_GE(time, 20ms);
    EXPECT_EQ(countOfGiveUps(3), 1);
}

TEST_F(MakeRoom, LeavesClientsAloneThatHaveNotSentARequestYet) {
    server.start();
    clients.push_back(std::make_unique<RawClient>(server.name));
    ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == 1; }));
    addSilentClient();
    addSilentClient();
    std::this_thread::sleep_for(SETTLED);
    addSilentClient();
    addSilentClient();
    EXPECT_EQ(countOfGiveUps(1), 0);
    EXPECT_EQ(clients[0]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
}

TEST_F(MakeRoom, LeavesClientsAloneWhileNobodyWaits) {
    server.start();
    for (int i = 0; i < 3; ++i) addSilentClient();
    std::this_thread::sleep_for(100ms);
    for (const auto& client : clients) EXPECT_EQ(client->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
}

TEST_F(MakeRoom, TakesOneClientForEachConnectionThatWaits) {
    server.start();
    for (int i = 0; i < 3; ++i) addSilentClient();
    std::this_thread::sleep_for(SETTLED);
    addSilentClient();
    std::this_thread::sleep_for(100ms);
    int gaveUp = 0;
    for (int i = 0; i < 3; ++i) {
        const int count = countOfGiveUps(i + 1);
        gaveUp += count;
        if (count > 0) continue;
        EXPECT_EQ(clients[static_cast<std::size_t>(i)]->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    }
    EXPECT_EQ(gaveUp, 1);
}

TEST_F(MakeRoom, AsksAllWhenNobodyIsSilent) {
    std::promise<void> release;
    const auto released = release.get_future().share();
    std::atomic<int> begun{0};
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        const std::string body = bodyOf(request);
        if (++begun <= 3) released.wait();
        response.setStatusCode(200);
        response.setBody(body.data(), body.size());
        response.send();
    };
    server.start();
    for (int i = 1; i <= 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        clients.back()->write(POST_HELLO);
        ASSERT_TRUE(eventually([&] { return begun == i; }));
    }
    RawClient fourth(server.name);
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Still waiting for thread to process QvPipe worker " + full(4)));
    release.set_value();
    EXPECT_LT(elapsed([&] { EXPECT_EQ(fourth.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK); }), 10s);
    server.stop();  // before what the handlers wait for goes
}

TEST_F(MakeRoom, IsUnseenByApplications) {
    server.start();
    constexpr int CALLERS = 10;
    std::vector<QvtpClient> callers(CALLERS);
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < CALLERS; ++i) {
            const std::string body = std::to_string(round * CALLERS + i);
            PostRequest request(&callers[static_cast<std::size_t>(i)], server.name, "/p");
            request.setBody(body.data(), body.size());
            const std::unique_ptr<QvtpResponse> response(request.execute());
            EXPECT_EQ(bodyOf(*response), body);
        }
    }
    EXPECT_GT(countOfGiveUps(1), 0);
}

TEST_F(MakeRoom, IsOffUnlessItIsSet) {
    server.server.setMakeRoom(false);
    server.start();
    for (int i = 0; i < 3; ++i) addSilentClient();
    std::this_thread::sleep_for(SETTLED);
    const RawClient fourth(server.name);
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Still waiting for thread to process QvPipe worker " + full(4)));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(countOfGiveUps(1) + countOfGiveUps(2) + countOfGiveUps(3), 0);
}

}  // namespace
}  // namespace qvtp_test
