#include "easy/Easy.h"

#include "support/Child.h"
#include "support/Process.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace qvtp_test {
namespace {

class EasyOnLinux : public Easy {};

/// With a pipe directory of its own, and nothing else.
class EasyDirectory : public ::testing::Test {
  protected:
    EasyDirectory() { setEnvironment("QVTP_PIPE_DIR", directory); }
    ~EasyDirectory() override { setEnvironment("QVTP_PIPE_DIR", former); }

    const std::string former = std::getenv("QVTP_PIPE_DIR") != nullptr ? std::getenv("QVTP_PIPE_DIR") : "";
    const std::string directory = makeTestDirectory() + "/pipes";
};

// ---- The pipe directory ----

TEST_F(EasyDirectory, IsBadIfOthersMayEnterIt) {
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    ASSERT_EQ(::chmod(directory.c_str(), 0755), 0);
    const auto error = errorOf([] { Server server("x"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ErrorKind::bad_directory);
    EXPECT_EQ(error->what(), "The server cannot start. Pipe \"x\" (" + directory + "/x.sock). The pipe directory " +
                                 directory + " is open to other users. Take their rights away (chmod 700 " + directory +
                                 "). The pipe directory cannot be used: correct it, or set QVTP_PIPE_DIR to another.");
    EXPECT_EQ(kindOf([] { Client("x").post("/"); }), "bad_directory");
}

TEST_F(EasyDirectory, IsBadForAServerIfItCannotBeMade) {
    setEnvironment("QVTP_PIPE_DIR", directory + "/missing/pipes");
    EXPECT_EQ(kindOf([] { Server server("x"); }), "bad_directory");
    EXPECT_EQ(kindOf([] { Client("x").post("/"); }), "no_server") << "where there is none there is no server";
}

TEST_F(EasyDirectory, IsBadIfSomethingElseIsInThePlaceOfALockFile) {
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    ASSERT_EQ(::mkdir((directory + "/x.lock").c_str(), 0700), 0);
    EXPECT_EQ(kindOf([] { Server server("x"); }), "bad_directory");
    EXPECT_EQ(kindOf([] { Client("x").post("/"); }), "bad_directory");
}

// ---- Shortages ----

/// Takes all descriptors, for as long as it lives.
class NoDescriptors {
  public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &former_);
        const rlimit none{0, former_.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &former_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    rlimit former_{};
};

TEST_F(EasyOnLinux, SendsNothingWithoutADescriptor) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "the sanitizers need descriptors themselves";
    server.start();
    {
        const NoDescriptors none;
        EXPECT_EQ(kindOf([&] { client.post("/echo", "x"); }), "not_sent");
    }
    EXPECT_EQ(client.post("/echo", "x").body(), "x");
}

TEST_F(EasyOnLinux, IsDeniedToAServerWithoutADescriptor) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "the sanitizers need descriptors themselves";
    const std::string other = uniquePipeName();
    const NoDescriptors none;
    EXPECT_EQ(kindOf([&] { Server second(other); }), "denied");
}

// ---- Signals ----

TEST_F(EasyOnLinux, RunsUntilASignal) {
    for (int signal : {SIGINT, SIGTERM}) {
        ::signal(signal, SIG_DFL);  // a shell ignores SIGINT for what it starts in the background
        auto run = std::async(std::launch::async, [&] { return server.runUntilSignal(); });
        ASSERT_TRUE(eventually([&] { return server.isRunning(); }));
        EXPECT_EQ(client.post("/echo", "x").body(), "x");
        ::kill(::getpid(), signal);
        EXPECT_TRUE(run.get());
        EXPECT_FALSE(server.isRunning());
    }
}

TEST_F(EasyOnLinux, ServesWhatHasBegunWhenASignalComes) {
    std::promise<void> release;
    server.onPost("/block", [&](const Request&) { return release.get_future().wait(), Reply("done"); });
    auto run = inBackground([&] { return server.runUntilSignal(); });
    auto body = std::async(std::launch::async, [&] { return client.post("/block").body(); });
    ASSERT_TRUE(eventually([&] { return server.counters().inHandlers == 1; }));
    ::kill(::getpid(), SIGTERM);
    EXPECT_EQ(run.wait_for(PENDING), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(body.get(), "done");
    EXPECT_TRUE(run.get());
}

TEST_F(EasyOnLinux, IsEndedByASecondSignalAsEver) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer lets no forked child have threads";
    const int child = startChild([&] {
        Server other(name + "child");
        other.onPost("/block", [](const Request&) {
            std::this_thread::sleep_for(1h);
            return Reply();
        });
        other.runUntilSignal(0ms);
        return 0;
    });
    Client poster(name + "child", 20s);
    ASSERT_TRUE(eventually([&] { return kindOf([&] { poster.post("/nothing"); }) == "nothing"; }));
    auto post = inBackground([&] { return kindOf([&] { poster.post("/block"); }); });
    EXPECT_EQ(post.wait_for(PENDING), std::future_status::timeout);
    ::kill(child, SIGTERM);
    // The drain has begun when the name is given up.
    EXPECT_TRUE(eventually([&] { return kindOf([&] { Client(name + "child", 1s).post("/nothing"); }) != "nothing"; }));
    ::kill(child, SIGTERM);
    EXPECT_EQ(post.get(), "unknown_outcome");
    EXPECT_EQ(resultOf(child), -1) << "ended by the signal";
}

// ---- Forks ----

TEST_F(EasyOnLinux, MakesConnectionsOfItsOwnInAForkedChild) {
    server.start();
    EXPECT_EQ(client.post("/echo", "parent").body(), "parent");
    const int child = startChildAtOnce([&] { return client.post("/echo", "child").body() == "child" ? 0 : 1; });
    EXPECT_EQ(resultOf(child), 0);
    EXPECT_EQ(client.post("/echo", "parent").body(), "parent");
    EXPECT_EQ(server.counters().posts, 3U);
}

TEST_F(EasyOnLinux, DestroysAParentsServerInAForkedChildWithoutHarm) {
    auto own = std::make_unique<Server>(uniquePipeName());
    own->start();
    EXPECT_EQ(resultInChild([&] {
                  own->stop();
                  own.reset();
                  return 0;
              }),
              0);
    EXPECT_TRUE(own->isRunning());
}

}  // namespace
}  // namespace qvtp_test
