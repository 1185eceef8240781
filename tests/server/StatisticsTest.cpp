#include "server/Worker.h"
#include "support/TestServer.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <vector>

namespace {

using namespace Quovane::Qvtp;
using namespace qvtp_test;

class ServerStatistics : public ::testing::Test {
  protected:
    QvtpServer::Statistics now() const { return server.server.statistics(); }

    TestServer server;
};

TEST_F(ServerStatistics, AreAllZeroAtFirst) {
    const QvtpServer::Statistics first = now();
    EXPECT_EQ(first.posts, 0);
    EXPECT_EQ(first.notifications, 0);
    EXPECT_EQ(first.connections, 0);
    EXPECT_EQ(first.endedWorkers, 0);
    EXPECT_EQ(first.waitsForThread, 0);
    EXPECT_EQ(first.peakWorkers, 0);
}

TEST_F(ServerStatistics, CountRequestsAsTheyAreGivenToTheHandler) {
    QvtpServer::Statistics inHandler;
    const auto answer = server.handler.onPost;
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        inHandler = now();
        answer(request, response);
    };
    server.start();
    RawClient client(server.name);
    client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    for (int posts = 1; posts <= 3; ++posts) {
        EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
        EXPECT_EQ(inHandler.posts, posts);
        EXPECT_EQ(inHandler.notifications, 1);
    }
    server.stop();
    EXPECT_EQ(now().posts, 3);
    EXPECT_EQ(now().notifications, 1);
}

TEST_F(ServerStatistics, CountConnectionsAndTheMostOfThemAtOnce) {
    server.start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 1; i <= 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        clients.back()->exchange(POST_HELLO, HELLO_BACK);
        EXPECT_EQ(now().connections, i);
        ASSERT_TRUE(eventually([&] { return now().peakWorkers == i; }));  // a worker may answer before it is counted
    }
    clients.clear();
    ASSERT_TRUE(eventually([&] {
        RawClient(server.name).exchange(POST_HELLO, HELLO_BACK);
        return now().endedWorkers >= 3;
    }));
    EXPECT_GT(now().connections, 3);
    EXPECT_EQ(now().posts, now().connections);
}

TEST_F(ServerStatistics, CountConnectionsThatWaitedForAWorker) {
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 3);
    std::promise<void> end;
    const std::shared_future<void> ended = end.get_future().share();
    server.handler.onNotify = [&](QvtpServerRequest&) { ended.wait(); };
    server.start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        clients.back()->write("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    }
    ASSERT_TRUE(eventually([&] { return now().notifications == 3; }));
    RawClient fourth(server.name);
    ASSERT_TRUE(eventually([&] { return now().connections == 4; }));
    EXPECT_EQ(now().waitsForThread, 0);
    end.set_value();
    fourth.exchange(POST_HELLO, HELLO_BACK);
    EXPECT_TRUE(eventually([&] { return now().waitsForThread == 1; }));
    server.stop();  // before what the handlers wait for goes
}

}  // namespace
