#include "platform/PipeContract.h"

#include <atomic>
#include <future>

namespace qvtp_test {
namespace {

class AcceptContract : public PipeContract {};

TEST_F(AcceptContract, TakesAClientThatIsConnectedAlready) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    LogCapture log;
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
    EXPECT_THAT(log.messages(),
                ElementsAre("DEBUG Calling ConnectNamedPipe.", "DEBUG ServerQvPipe_acceptPipe error = 535",
                            "DEBUG ServerQvPipe_acceptPipe retval = 0"));
}

TEST_F(AcceptContract, WaitsForAClient) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    std::vector<std::string> messages;
    auto accepting = acceptInBackground(server, log, messages);
    ASSERT_TRUE(eventuallyAccepts(log));
    ASSERT_EQ(connect(client), 0);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
    EXPECT_THAT(messages, ElementsAre("DEBUG Calling ConnectNamedPipe.", "DEBUG ServerQvPipe_acceptPipe error = 997",
                                      "DEBUG ServerQvPipe_acceptPipe WaitForSingleObject status = 0",
                                      "DEBUG GetOverlappedResult - GetLastError=997",
                                      "DEBUG ServerQvPipe_acceptPipe retval = 0"));
}

TEST_F(AcceptContract, SeesAClientThatWaitsForTheAcceptWhereTheSystemShowsIt) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    EXPECT_FALSE(platform::platformHasClient(server.pipe));
    ASSERT_EQ(connect(client), 0);
    EXPECT_EQ(platform::platformHasClient(server.pipe), backend::showsWaitingClients());
}

TEST_F(AcceptContract, ShowsNoClientWhileItLooksForOne) {
    End server;
    ASSERT_EQ(create(server), 0);
    std::atomic<bool> ended{false};
    auto seen = std::async(std::launch::async, [&] {
        int count = 0;
        while (!ended) count += platform::platformHasClient(server.pipe) ? 1 : 0;
        return count;
    });
    for (int i = 0; i < 300; ++i) EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    ended = true;
    EXPECT_EQ(seen.get(), 0);
}

TEST_F(AcceptContract, LeavesTheInstanceWaitingAfterATimeout) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    EXPECT_GE(elapsed([&] { EXPECT_EQ(accept(server, 100), AcceptResult::TIMED_OUT); }), 95ms);
    EXPECT_THAT(log.messages(),
                ElementsAre("DEBUG Calling ConnectNamedPipe.", "DEBUG ServerQvPipe_acceptPipe error = 997",
                            "DEBUG ServerQvPipe_acceptPipe WaitForSingleObject status = 258",
                            "DEBUG ServerQvPipe_acceptPipe retval = 1"));
    ASSERT_EQ(connect(client), 0);
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
    EXPECT_EQ(write(client, "late"), 0);
    EXPECT_EQ(readText(server), "late");
}

TEST_F(AcceptContract, ServesTheDataOfAClientThatHasGoneBefore) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    ASSERT_EQ(write(client, "bye"), 0);
    client.close();
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
    EXPECT_EQ(readText(server), "bye");
    EXPECT_EQ(readText(server), "-3");
}

TEST_F(AcceptContract, NeverKeepsAnInstanceStuckForAClientThatHasGone) {
    End server, next, client, later;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    client.close();
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
    ASSERT_EQ(createNext(next), 0);
    EXPECT_EQ(connect(later), ConnectResult::CONNECTED);
    EXPECT_EQ(accept(next), AcceptResult::CONNECTED);
}

TEST_F(AcceptContract, TakesAClientThatComesWritesAndGoesWhileItWaits) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    auto accepting = acceptInBackground(server);
    ASSERT_EQ(connect(client), 0);
    ASSERT_EQ(write(client, "quick"), 0);
    client.close();
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
    EXPECT_EQ(readText(server), "quick");
    EXPECT_EQ(readText(server), "-3");
}

TEST_F(AcceptContract, FailsOnTheInvalidHandle) {
    LogCapture log;
    EXPECT_EQ(accept(End()), AcceptResult::CONNECT_ERROR);
    EXPECT_THAT(log.messages(),
                ElementsAre("DEBUG Calling ConnectNamedPipe.", "DEBUG ServerQvPipe_acceptPipe error = 6",
                            "ERROR Connect error: 6", "DEBUG ServerQvPipe_acceptPipe retval = 3"));
}

TEST_F(AcceptContract, FailsOnAClosedInstance) {
    End server;
    ASSERT_EQ(create(server), 0);
    platform::platformCloseServer(server.pipe, server.event);
    EXPECT_EQ(accept(server), AcceptResult::CONNECT_ERROR);
    server.forget();
}

TEST_F(AcceptContract, EndsAsAbortedWhenTheInstanceIsClosed) {
    End server;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    std::vector<std::string> messages;
    auto accepting = acceptInBackground(server, log, messages);
    ASSERT_TRUE(eventuallyAccepts(log));
    platform::platformCloseServer(server.pipe, server.event);
    EXPECT_EQ(accepting.get(), AcceptResult::ABORTED);
    server.forget();
    EXPECT_THAT(messages, ElementsAre("DEBUG Calling ConnectNamedPipe.", "DEBUG ServerQvPipe_acceptPipe error = 997",
                                      "DEBUG ServerQvPipe_acceptPipe WaitForSingleObject status = 0",
                                      "DEBUG GetOverlappedResult - GetLastError=995"));
}

TEST_F(AcceptContract, GivesEachWaitingInstanceAClient) {
    End servers[3], clients[3], busy;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(create(servers[i], true, true, i == 0), 0);
    for (End& client : clients) ASSERT_EQ(connect(client, 200), 0);
    EXPECT_EQ(connect(busy, 100), ConnectResult::TIMED_OUT);
    for (End& server : servers) EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
}

TEST_F(AcceptContract, RefusesASecondFirstInstance) {
    if (!backend::refusesSecondFirstInstance()) GTEST_SKIP() << "the first-instance flag is not enforced here";
    End server, second;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    EXPECT_EQ(create(second), 5);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR CreateNamedPipe failed: 5"));
    EXPECT_FALSE(second.isOpen());
}

TEST_F(AcceptContract, RefusesAFirstInstanceWhileAnAcceptedEndIsOpen) {
    if (!backend::refusesSecondFirstInstance()) GTEST_SKIP() << "the first-instance flag is not enforced here";
    End server, client, second;
    pair(server, client);
    EXPECT_EQ(create(second), 5);
    server.close();
    EXPECT_EQ(create(second), 0);
}

TEST_F(AcceptContract, CreatesANameAlsoWithoutTheFirstFlag) {
    End server, client;
    EXPECT_EQ(createNext(server), 0);
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
}

TEST_F(AcceptContract, RefusesANextInstanceOfAnotherDirection) {
    End server, next;
    ASSERT_EQ(create(server), 0);
    EXPECT_EQ(create(next, true, false, false), 5);
    End client;
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED) << "the name is served as before";
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
}

TEST_F(AcceptContract, LogsTheHandlesOfANewInstance) {
    LogCapture log;
    End server;
    ASSERT_EQ(create(server), 0);
    EXPECT_THAT(log.messages(), ElementsAre(platform::text("DEBUG bindPipe: handle=", platform::printable(server.pipe),
                                                           " event=", platform::printable(server.event))));
}

TEST_F(AcceptContract, MakesMoreThan255Instances) {
    std::vector<End> servers(300);
    for (std::size_t i = 0; i < servers.size(); ++i) ASSERT_EQ(create(servers[i], true, true, i == 0), 0) << i;
    End client;
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
}

TEST_F(AcceptContract, CreatesTheNameAgainRightAfterItsLastClose) {
    for (int i = 0; i < 50; ++i) {
        End server, client;
        ASSERT_EQ(create(server), 0) << i;
        ASSERT_EQ(connect(client), 0) << i;
        ASSERT_EQ(accept(server), 0) << i;
    }
}

TEST_F(AcceptContract, CreatesTheNameAgainWhileOnlyClientEndsAreLeft) {
    End server, client, again;
    pair(server, client);
    server.close();
    End late;
    EXPECT_EQ(connect(late), ConnectResult::CANNOT_OPEN);
    EXPECT_EQ(create(again), 0);
    EXPECT_EQ(connect(late), ConnectResult::CONNECTED);
}

TEST_F(AcceptContract, RefusesToReadOrWriteOnAnInstanceThatStillWaits) {
    End server;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    EXPECT_EQ(readText(server), "-3");
    EXPECT_EQ(write(server, "x"), WriteResult::FAILED);
    EXPECT_THAT(log.messages(), ElementsAre("WARN ReadFile error: 536", "ERROR WriteFile error: 536"));
}

TEST_F(AcceptContract, EndsTheConnectionOfAClientThatWasNeverAccepted) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    server.close();
    EXPECT_EQ(readText(client), "-3");
    EXPECT_EQ(write(client, "x"), WriteResult::BROKEN);
}

TEST_F(AcceptContract, EndsThePendingReadOfAClientThatWasNeverAccepted) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    auto reading = inBackground([&] { return readText(client); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    server.close();
    EXPECT_EQ(reading.get(), "0");
}

}  // namespace
}  // namespace qvtp_test
