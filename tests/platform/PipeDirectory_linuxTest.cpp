#include "platform/PipeFiles_linux.h"
#include "support/Holdings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace qvtp_test {
namespace {

// What a client finds that looks at the directory anew for each connection.

/// What a client meets that has connected before.
class ReplacedDirectory : public PipeFiles {
  protected:
    void SetUp() override {
        PipeFiles::SetUp();
        End client;
        ASSERT_EQ(create(server), 0);
        ASSERT_EQ(connect(client), 0);
        ASSERT_EQ(accept(server), 0);
        ASSERT_EQ(createNext(next), 0);
    }
    void replace(mode_t mode) {
        ASSERT_EQ(std::rename(directory.c_str(), (root + "/moved").c_str()), 0);
        ASSERT_EQ(::mkdir(directory.c_str(), mode), 0);
        ::close(foreign);
        foreign = listenAs(name + ".sock");
    }
    void TearDown() override {
        ::close(foreign);
        PipeFiles::TearDown();
    }

    End server, next;
    int foreign = -1;
};

TEST_F(ReplacedDirectory, IsRefusedWhenOthersMayEnterIt) {
    replace(0755);
    End client;
    EXPECT_EQ(connect(client), ConnectResult::ACCESS_DENIED);
}

TEST_F(ReplacedDirectory, IsRefusedWhenItBelongsToAnother) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
    replace(0700);
    ASSERT_EQ(::chown(directory.c_str(), 12345, 12345), 0);
    End client;
    EXPECT_EQ(connect(client), ConnectResult::ACCESS_DENIED);
}

TEST_F(ReplacedDirectory, IsUsedWhenItIsPrivate) {
    replace(0700);
    End client;
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
    EXPECT_EQ(accept(next, 50), AcceptResult::TIMED_OUT);  // it was not this server's
}

TEST_F(ReplacedDirectory, EndsTheWaitOfAClientForAServerInTheOtherOne) {
    const int lock = ::open((directory + "/a.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock request {};
    request.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(lock, F_OFD_SETLK, &request), 0);  // a server that does not listen yet
    LogCapture log;
    auto waiting = std::async(std::launch::async, [&] {
        End client;
        return connectNamed(client, "a", 20000);
    });
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Waiting for named pipe."); }));
    replace(0755);
    EXPECT_EQ(waiting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), ConnectResult::TIMED_OUT);
    ::close(lock);
}

TEST_F(ReplacedDirectory, IsNotEnteredByAClientThatWaitsForAServerInTheOtherOne) {
    const int lock = ::open((directory + "/a.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock request {};
    request.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(lock, F_OFD_SETLK, &request), 0);  // a server that does not listen yet
    const std::string fresh = root + "/fresh";
    ASSERT_EQ(::mkdir(fresh.c_str(), 0755), 0);
    const std::string former = std::exchange(directory, fresh);
    const int other = listenAs("a.sock");
    directory = former;
    LogCapture log;
    auto waiting = std::async(std::launch::async, [&] {
        End client;
        return connectNamed(client, "a", 20000);
    });
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Waiting for named pipe."); }));
    ASSERT_EQ(::renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, directory.c_str(), RENAME_EXCHANGE), 0);
    EXPECT_EQ(waiting.get(), ConnectResult::TIMED_OUT);
    ::close(lock);
    ::close(other);
}

TEST_F(PipeFiles, AreLookedUpAgainForAServerThatWasRestarted) {
    for (const auto& [readable, writable] : {std::pair(true, true), std::pair(true, false), std::pair(false, true)}) {
        End server, client;
        ASSERT_EQ(create(server, readable, writable), 0);
        EXPECT_EQ(connect(client, 2000, true, true),
                  readable && writable ? ConnectResult::CONNECTED : ConnectResult::ACCESS_DENIED);
        client.close();
        server.close();
        EXPECT_EQ(connect(client), ConnectResult::CANNOT_OPEN);
    }
}

TEST_F(PipeFiles, WorkInADirectoryOfARelativePath) {
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    const int previous = ::open(".", O_PATH | O_CLOEXEC);
    ASSERT_EQ(::chdir(root.c_str()), 0);
    ::setenv("QVTP_PIPE_DIR", "pipes", 1);
    End server, client;
    EXPECT_EQ(create(server), 0);
    EXPECT_EQ(connect(client), 0);
    EXPECT_EQ(accept(server), 0);
    ASSERT_EQ(::fchdir(previous), 0);
    ::close(previous);
}

TEST_F(PipeFiles, CostAThousandConnectionsNoDescriptor) {
    End server;
    ASSERT_EQ(create(server), 0);
    int handles = 0;
    for (int i = 0; i < 1000; ++i) {
        if (i == 10) handles = Holdings::now().handles;
        End client, next;
        ASSERT_EQ(connect(client), 0);
        ASSERT_EQ(accept(server), 0);
        ASSERT_EQ(createNext(next), 0);
        server = std::move(next);
        next.close();
    }
    EXPECT_EQ(Holdings::now().handles, handles);
}

}  // namespace
}  // namespace qvtp_test
