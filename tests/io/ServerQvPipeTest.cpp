#include <qvtp/io/ServerQvPipe.h>

#include "platform/BackEnd.h"
#include "support/LogCapture.h"
#include "support/PipeName.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <memory>

namespace qvtp_test {
namespace {

using namespace Quovane::Io;
using namespace std::chrono_literals;

/// Access to a private member: an explicit instantiation may name it.
template <int ServerQvPipe::*Member>
struct Counter {
    friend int& counterOf(ServerQvPipe& server) { return server.*Member; }
};
template struct Counter<&ServerQvPipe::instanceCounter_>;
int& counterOf(ServerQvPipe& server);

class ServerPipe : public ::testing::Test {
  protected:
    std::future<std::string> acceptInBackground(ServerQvPipe& server) {
        return std::async(std::launch::async, [&server] { return thrownBy([&] { server.accept(); }); });
    }

    static std::unique_ptr<ServerQvPipe> copyOf(const ServerQvPipe& server, bool isAssigned) {
        if (!isAssigned) return std::make_unique<ServerQvPipe>(server);
        auto copy = std::make_unique<ServerQvPipe>();
        *copy = server;
        return copy;
    }

    const std::string name = uniquePipeName();
};

TEST_F(ServerPipe, StartsUnboundAndOpen) {
    const ServerQvPipe server;
    EXPECT_FALSE(server.isBound());
    EXPECT_FALSE(server.isClosed());
    EXPECT_EQ(server.getAcceptTimeout(), 0);
}

TEST_F(ServerPipe, NeedsADirection) {
    ServerQvPipe server;
    EXPECT_EQ(thrownBy([&] { server.bind(name, false, false); }), "IllegalArgumentException");
    server.bind(name, true, true);
    EXPECT_EQ(thrownBy([&] { server.bind(name, false, false); }), "IllegalArgumentException");
}

TEST_F(ServerPipe, BindsOnce) {
    ServerQvPipe server(name, true, true);
    EXPECT_TRUE(server.isBound());
    EXPECT_EQ(thrownBy([&] { server.bind(name + "x", true, true); }), "IllegalStateException: Pipe is already bound.");
}

TEST_F(ServerPipe, CannotBindANameThatNoPipeCanHave) {
    EXPECT_EQ(thrownBy([&] { ServerQvPipe(std::string(), true, true); }), "BindException: CreateNamedPipe failed");
    EXPECT_EQ(thrownBy([&] { ServerQvPipe(std::string(300, 'x'), true, true); }),
              "BindException: CreateNamedPipe failed");
}

TEST_F(ServerPipe, DoesNotAcceptUnbound) {
    ServerQvPipe server;
    EXPECT_EQ(thrownBy([&] { server.accept(); }), "IllegalStateException: Pipe is not bound.");
}

TEST_F(ServerPipe, GivesUpANameThatItTookOnceClosed) {
    {
        ServerQvPipe server;
        server.close();
        server.bind(name, true, true);
        EXPECT_EQ(thrownBy([&] { server.accept(); }), "IllegalStateException: Pipe is closed.");
    }
    EXPECT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "ConnectException: Could not connect to pipe.");
    EXPECT_EQ(thrownBy([&] { ServerQvPipe(name, true, true); }), "nothing");
}

TEST_F(ServerPipe, DoesNotAcceptIntoABoundPipe) {
    ServerQvPipe server(name, true, true);
    QvPipe bound;
    bound.bind("other", true, true);
    EXPECT_EQ(thrownBy([&] { server.accept(bound); }),
              "IllegalStateException: Cannot provide a bound QvPipe to accept().");
}

TEST_F(ServerPipe, DoesNotAcceptOnceClosedAndSaysSoBeforeLookingAtThePipe) {
    ServerQvPipe server(name, true, true);
    QvPipe bound;
    bound.bind("other", true, true);
    server.close();
    EXPECT_TRUE(server.isClosed());
    EXPECT_EQ(thrownBy([&] { server.accept(bound); }), "IllegalStateException: Pipe is closed.");
    EXPECT_EQ(thrownBy([&] { server.bind(name, true, true); }), "IllegalStateException: Pipe is already bound.");
}

TEST_F(ServerPipe, HandsOverAConnectionWithItsNameAndDirections) {
    ServerQvPipe server(name, true, false);
    const QvPipe client(name, false, true);
    QvPipe accepted = server.accept();
    EXPECT_TRUE(accepted.isBound());
    EXPECT_EQ(accepted.getConnectTimeout(), 10000);
    EXPECT_EQ(accepted.getReadTimeout(), 0);
    EXPECT_EQ(thrownBy([&] { accepted.getInputStream(); }), "nothing");
    EXPECT_EQ(thrownBy([&] { accepted.getOutputStream(); }),
              "IllegalStateException: Pipe is not bound with write access.");
}

TEST_F(ServerPipe, ReturnsAConnectionWithoutACopyThatClosesIt) {
    ServerQvPipe server(name, true, true);
    QvPipe client(name, true, true);
    LogCapture log;
    QvPipe accepted = server.accept();
    EXPECT_THAT(withoutHandles(log.messages()),
                ::testing::Not(::testing::Contains(::testing::HasSubstr("Close Handles"))));
    client.writePipe("x", 0, 1);
    char byte = 0;
    EXPECT_EQ(accepted.readPipe(&byte, 0, 1, 1000), 1);
}

TEST_F(ServerPipe, ClosesAConnectionThatItCannotReturn) {
    ServerQvPipe server(name, true, true);
    server.setAcceptTimeout(1);
    LogCapture log;
    EXPECT_EQ(thrownBy([&] { server.accept(); }), "TimeoutException: QvPipe accept timeout");
    EXPECT_TRUE(log.contains("DEBUG Close Handles: handle=0xffffffffffffffff; event=0xffffffffffffffff"));
}

TEST_F(ServerPipe, CreatesTheNextInstanceAtOnce) {
    ServerQvPipe server(name, true, true);
    QvPipe first(name, true, true);
    QvPipe accepted = server.accept();
    QvPipe second;
    second.setConnectTimeout(2000);
    EXPECT_EQ(thrownBy([&] { second.connect(name, true, true); }), "nothing");
}

TEST_F(ServerPipe, TimesOutAndAcceptsTheClientThatComesAfterwards) {
    ServerQvPipe server(name, true, true);
    server.setAcceptTimeout(100);
    EXPECT_EQ(server.getAcceptTimeout(), 100);
    EXPECT_GE(
        elapsed([&] { EXPECT_EQ(thrownBy([&] { server.accept(); }), "TimeoutException: QvPipe accept timeout"); }),
        95ms);
    const QvPipe client(name, true, true);
    EXPECT_EQ(thrownBy([&] { server.accept(); }), "nothing");
}

TEST_F(ServerPipe, CountsItsAcceptsForEver) {
    ServerQvPipe server(name, true, true);
    server.setAcceptTimeout(1);
    counterOf(server) = std::numeric_limits<int>::max();
    EXPECT_EQ(thrownBy([&] { server.accept(); }), "TimeoutException: QvPipe accept timeout");
    EXPECT_EQ(counterOf(server), std::numeric_limits<int>::min());
}

TEST_F(ServerPipe, DoesNotCountWhatIsNoAccept) {
    ServerQvPipe server(name, true, true);
    QvPipe bound;
    bound.bind("other", true, true);
    EXPECT_NE(thrownBy([&] { server.accept(bound); }), "nothing");
    EXPECT_EQ(counterOf(server), 0);
}

TEST_F(ServerPipe, InterruptsABlockedAcceptWhenClosed) {
    ServerQvPipe server(name, true, true);
    LogCapture log;
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG ServerQvPipe_acceptPipe error = 997"); }));
    server.close();
    EXPECT_EQ(accepting.get(), "InterruptedException: accept aborted");
    EXPECT_EQ(thrownBy([&] { server.accept(); }), "IllegalStateException: Pipe is closed.");
}

TEST_F(ServerPipe, ReportsAsTheBaseClassThatACopyWasClosedDuringItsAccept) {
    ServerQvPipe server(name, true, true);
    ServerQvPipe copy(server);
    LogCapture log;
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG ServerQvPipe_acceptPipe error = 997"); }));
    copy.close();
    EXPECT_EQ(accepting.get(), "QvPipeException: acceptPipe aborted.");
}

TEST_F(ServerPipe, LogsAnAbortedAccept) {
    ServerQvPipe server(name, true, true);
    LogCapture log;
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG ServerQvPipe_acceptPipe error = 997"); }));
    server.close();
    accepting.get();
    EXPECT_EQ(log.count("INFO Accept aborted."), 1);
}

TEST_F(ServerPipe, LeavesTheNameFreeWheneverItIsClosedDuringAccepts) {
    // The close may fall anywhere, also between the hand-over of a connection and the next instance.
    for (int round = 0; round < 200; ++round) {
        ServerQvPipe server(name, true, true);
        std::atomic<bool> done{false};
        std::thread clients([&] {
            while (!done) {
                QvPipe client;
                client.setConnectTimeout(20);
                thrownBy([&] { client.connect(name, true, true); });
            }
        });
        auto accepting = std::async(std::launch::async, [&server] {
            std::string thrown;
            do thrown = thrownBy([&] { server.accept(); });
            while (thrown == "nothing");
            return thrown;
        });
        spinFor(std::chrono::microseconds(round * 10));
        server.close();
        const std::string thrown = accepting.get();
        EXPECT_TRUE(thrown == "InterruptedException: accept aborted" ||
                    thrown == "IllegalStateException: Pipe is closed.")
            << thrown;
        done = true;
        clients.join();
        ASSERT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "ConnectException: Could not connect to pipe.") << round;
        ASSERT_EQ(thrownBy([&] { ServerQvPipe(name, true, true); }), "nothing") << round;
    }
}

TEST_F(ServerPipe, NeverJoinsANameThatItCouldNotTake) {
    if (!backend::refusesSecondFirstInstance()) GTEST_SKIP() << "the first-instance flag is not enforced here";
    const ServerQvPipe holder(name, true, true);
    ServerQvPipe late;
    EXPECT_EQ(thrownBy([&] { late.bind(name, true, true); }), "BindException: CreateNamedPipe failed");
    EXPECT_TRUE(late.isBound());
    EXPECT_EQ(thrownBy([&] { late.accept(); }), "QvPipeException: acceptPipe failed");
}

TEST_F(ServerPipe, ClosesOnceWithItsOwnLine) {
    ServerQvPipe server(name, true, true);
    LogCapture log;
    server.close();
    server.close();
    EXPECT_THAT(withoutHandles(log.messages()), ::testing::ElementsAre("DEBUG Close Handles: handle=0xH event= 0xH"));
}

TEST_F(ServerPipe, ClosesInItsDestructor) {
    auto server = std::make_unique<ServerQvPipe>(name, true, true);
    LogCapture log;
    server.reset();
    EXPECT_THAT(withoutHandles(log.messages()), ::testing::ElementsAre("DEBUG Closing server pipe: " + name,
                                                                       "DEBUG Close Handles: handle=0xH event= 0xH"));
    EXPECT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "ConnectException: Could not connect to pipe.");
    EXPECT_EQ(thrownBy([&] { ServerQvPipe(name, true, true); }), "nothing");
}

TEST_F(ServerPipe, LeavesAcceptedConnectionsAliveWhenItCloses) {
    ServerQvPipe server(name, true, true);
    QvPipe client(name, true, true);
    QvPipe accepted = server.accept();
    server.close();
    client.writePipe("x", 0, 1);
    char byte = 0;
    EXPECT_EQ(accepted.readPipe(&byte, 0, 1, 1000), 1);
}

TEST_F(ServerPipe, SharesItsHandlesWithCopies) {
    ServerQvPipe server(name, true, true);
    ServerQvPipe copy(server);
    ServerQvPipe assigned;
    assigned = server;
    EXPECT_TRUE(copy.isBound());
    EXPECT_TRUE(assigned.isBound());
    copy.close();
    EXPECT_FALSE(server.isClosed());
    EXPECT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "ConnectException: Could not connect to pipe.");
}

TEST_F(ServerPipe, HandsItsSettingsToCopies) {
    for (const bool isAssigned : {false, true}) {
        ServerQvPipe server(name, true, true);
        server.setAcceptTimeout(7);
        server.close();
        const auto copy = copyOf(server, isAssigned);
        EXPECT_EQ(copy->getAcceptTimeout(), 7);
        EXPECT_TRUE(copy->isClosed());
    }
}

TEST_F(ServerPipe, HandsItsDirectionsToCopies) {
    for (const bool isAssigned : {false, true}) {
        const ServerQvPipe reader(name + "r", true, false);
        const QvPipe writingClient(name + "r", false, true);
        QvPipe reading = copyOf(reader, isAssigned)->accept();
        EXPECT_EQ(thrownBy([&] { reading.getInputStream(); }), "nothing");
        EXPECT_EQ(thrownBy([&] { reading.getOutputStream(); }),
                  "IllegalStateException: Pipe is not bound with write access.");
        const ServerQvPipe writer(name + "w", false, true);
        const QvPipe readingClient(name + "w", true, false);
        QvPipe writing = copyOf(writer, isAssigned)->accept();
        EXPECT_EQ(thrownBy([&] { writing.getOutputStream(); }), "nothing");
        EXPECT_EQ(thrownBy([&] { writing.getInputStream(); }),
                  "IllegalStateException: Pipe is not bound with read access.");
    }
}

}  // namespace
}  // namespace qvtp_test
