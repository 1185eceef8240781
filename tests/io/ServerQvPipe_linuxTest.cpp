#include <qvtp/io/ServerQvPipe.h>

#include "support/LogCapture.h"
#include "support/OutOfMemory.h"
#include "support/PipeName.h"
#include "support/Process.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <memory>

namespace qvtp_test {
namespace {

using namespace Quovane::Io;
using namespace std::chrono_literals;

constexpr char NO_INSTANCE[] = "QvPipeException: CreateNamedPipe failed";

class ServerPipeRecovery : public ::testing::Test {
  protected:
    ServerPipeRecovery() { use(directory); }
    ~ServerPipeRecovery() override { use(directory); }  // the variable stays for the tests that follow

    void use(const std::string& path) const {
        ::chmod(directory.c_str(), 0700);
        ::setenv("QVTP_PIPE_DIR", path.c_str(), 1);
    }

    /// A server whose accept has handed a client over, but found no memory for the next instance.
    void loseTheNextInstance() {
        for (int n = 1;; ++n) {
            server = std::make_unique<ServerQvPipe>(name, true, true);
            client = std::make_unique<QvPipe>(name, true, true);
            accepted = std::make_unique<QvPipe>();
            std::string thrown;
            {
                const OutOfMemory failure(n, OutOfMemory::ONCE);
                thrown = thrownBy([&] { server->accept(*accepted); });
                ASSERT_TRUE(failure.hasFailed()) << "no allocation is the next instance's";
            }
            if (thrown == NO_INSTANCE && accepted->isBound()) return;
            accepted.reset();
            server.reset();
        }
    }

    /// Whether the server serves two more clients.
    bool serves() {
        for (int round = 0; round < 2; ++round) {
            QvPipe other;
            other.setConnectTimeout(5000);
            server->setAcceptTimeout(5000);
            auto connecting =
                std::async(std::launch::async, [&] { return thrownBy([&] { other.connect(name, true, true); }); });
            if (thrownBy([&] { server->accept(); }) != "nothing" || connecting.get() != "nothing") return false;
        }
        return true;
    }

    const std::string directory = makeTestDirectory();
    const std::string name = uniquePipeName();
    std::unique_ptr<ServerQvPipe> server;
    std::unique_ptr<QvPipe> client;
    std::unique_ptr<QvPipe> accepted;
};

TEST_F(ServerPipeRecovery, HasHandedTheConnectionOverBeforeTheNextInstanceFails) {
    loseTheNextInstance();
    client->writePipe("x", 0, 1);
    char byte = 0;
    EXPECT_EQ(accepted->readPipe(&byte, 0, 1, 1000), 1);
}

TEST_F(ServerPipeRecovery, CreatesTheNextInstanceLaterWhenItCouldNotAtOnce) {
    loseTheNextInstance();
    EXPECT_TRUE(serves());
}

TEST_F(ServerPipeRecovery, LooksTheNameUpAgainWhenNothingIsLeftOfIt) {
    loseTheNextInstance();
    accepted.reset();
    ::chmod(directory.c_str(), 0755);  // no longer a private directory
    EXPECT_GE(elapsed([&] { EXPECT_EQ(thrownBy([&] { server->accept(); }), NO_INSTANCE); }), 95ms);
    EXPECT_EQ(thrownBy([&] { server->accept(); }), NO_INSTANCE);
    ::chmod(directory.c_str(), 0700);
    auto accepting = std::async(std::launch::async, [&] { return thrownBy([&] { server->accept(); }); });
    EXPECT_TRUE(eventually([&] { return thrownBy([&] { QvPipe(name, true, true); }) == "nothing"; }));
    EXPECT_EQ(accepting.get(), "nothing");
}

/// What happens around a server after it was bound is no concern of its.
class BoundServerPipe : public ServerPipeRecovery {
  protected:
    void SetUp() override { server = std::make_unique<ServerQvPipe>(name, true, true); }

    /// Accepts while the change holds, which is undone for the clients.
    void acceptDuring(const std::function<void()>& change, const std::function<void()>& undo) {
        for (int round = 0; round < 2; ++round) {
            QvPipe other;
            other.setConnectTimeout(5000);
            ASSERT_EQ(thrownBy([&] { other.connect(name, true, true); }), "nothing");
            change();
            EXPECT_EQ(thrownBy([&] { server->accept(); }), "nothing");
            undo();
        }
    }
};

TEST_F(BoundServerPipe, DoesNotMindThatTheVariableChanges) {
    const std::string other = makeTestDirectory();
    acceptDuring([&] { use(other); }, [&] { use(directory); });
}

TEST_F(BoundServerPipe, DoesNotMindThatItsDirectoryIsOpenedToOthers) {
    acceptDuring([&] { ::chmod(directory.c_str(), 0755); }, [&] { ::chmod(directory.c_str(), 0700); });
}

TEST_F(BoundServerPipe, DoesNotMindThatItsDirectoryIsMovedAway) {
    const std::string moved = directory + "-moved";
    acceptDuring([&] { ASSERT_EQ(std::rename(directory.c_str(), moved.c_str()), 0); },
                 [&] { ASSERT_EQ(std::rename(moved.c_str(), directory.c_str()), 0); });
}

TEST_F(BoundServerPipe, DoesNotMindThatTheUserChanges) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user and come back";
    acceptDuring([] { ASSERT_EQ(::seteuid(12345), 0); }, [] { ASSERT_EQ(::seteuid(0), 0); });
}

/// A relative path means another directory after a change of the current one.
class RelativeDirectory : public ServerPipeRecovery {
  protected:
    void SetUp() override {
        use("pipes");
        changeDirectory(first);
        server = std::make_unique<ServerQvPipe>(name, true, true);
    }
    void TearDown() override { changeDirectory(start); }

    bool isThere(const std::string& file) const { return ::access((first + "/pipes/" + file).c_str(), F_OK) == 0; }

    const std::string start = [] {
        const std::unique_ptr<char, decltype(&std::free)> path(::getcwd(nullptr, 0), &std::free);
        return std::string(path.get());
    }();
    const std::string first = makeTestDirectory();
    const std::string second = makeTestDirectory();
};

TEST_F(RelativeDirectory, IsTheOneInWhichTheServerWasBound) {
    client = std::make_unique<QvPipe>(name, true, true);
    changeDirectory(second);
    EXPECT_EQ(thrownBy([&] { server->accept(); }), "nothing");
    EXPECT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "ConnectException: Could not connect to pipe.");
    changeDirectory(first);
    EXPECT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "nothing");
}

TEST_F(RelativeDirectory, IsClearedByAServerThatClosesElsewhere) {
    EXPECT_TRUE(isThere(name + ".sock"));
    changeDirectory(second);
    server->close();
    EXPECT_FALSE(isThere(name + ".sock"));
}

TEST_F(RelativeDirectory, LetsOneProcessServeTheSameNameInTwo) {
    changeDirectory(second);
    ServerQvPipe other(name, true, true);
    for (ServerQvPipe* each : {server.get(), &other}) {
        changeDirectory(each == server.get() ? first : second);
        for (int round = 0; round < 2; ++round) {
            QvPipe pipe(name, true, true);
            pipe.writePipe(each == server.get() ? "1" : "2", 0, 1);
            changeDirectory(each == server.get() ? second : first);
            QvPipe end = each->accept();
            char byte = 0;
            EXPECT_EQ(end.readPipe(&byte, 0, 1, 1000), 1);
            EXPECT_EQ(byte, each == server.get() ? '1' : '2');
            changeDirectory(each == server.get() ? first : second);
        }
    }
}

}  // namespace
}  // namespace qvtp_test
