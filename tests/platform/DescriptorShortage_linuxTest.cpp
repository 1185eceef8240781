#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include "platform/PipeContract.h"
#include "support/Child.h"
#include "support/Holdings.h"
#include "support/Thrown.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace qvtp_test {
namespace {

using Quovane::Io::QvPipe;
using Quovane::Io::ServerQvPipe;

class DescriptorShortage : public PipeContract {
  protected:
    void SetUp() override {
        if (QVTP_SANITIZED) GTEST_SKIP() << "the sanitizers need descriptors themselves";
    }
};

/// Uses up all descriptors.
class Shortage {
  public:
    Shortage() {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        rlimit low = before_;
        low.rlim_cur = 256;
        ::setrlimit(RLIMIT_NOFILE, &low);
        for (int fd = ::dup(0); fd >= 0; fd = ::dup(0)) held_.push_back(fd);
    }
    ~Shortage() { end(); }
    void end() {
        for (int fd : held_) ::close(fd);
        held_.clear();
        ::setrlimit(RLIMIT_NOFILE, &before_);
    }
    /// Gives some back.
    void release(int count) {
        for (; count > 0 && !held_.empty(); --count, held_.pop_back()) ::close(held_.back());
    }

  private:
    rlimit before_{};
    std::vector<int> held_;
};

TEST_F(DescriptorShortage, IsReportedOnceByAcceptAndWaitedOut) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    Shortage shortage;
    EXPECT_GE(elapsed([&] { EXPECT_EQ(accept(server, 0), AcceptResult::CONNECT_ERROR); }), 95ms);
    EXPECT_GE(elapsed([&] { EXPECT_EQ(accept(server, 250), AcceptResult::TIMED_OUT); }), 245ms);
    shortage.end();
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Connect error: 4"));
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
}

TEST_F(DescriptorShortage, IsMetBeforeAClientIsTakenAndNotWhenTheNextInstanceIsCreated) {
    End server, next, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    Shortage shortage;
    shortage.release(2);  // the connection, and one to look at the directory
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
    EXPECT_EQ(createNext(next), 0);
}

/// The instance's own event becomes the next one's.
TEST_F(DescriptorShortage, IsNoneForANextInstanceWhoseAcceptFoundOne) {
    End server, next, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    Shortage shortage;
    shortage.release(1);
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
    EXPECT_EQ(platform::platformCreateNextInstance(server.pipe, path(), true, true, next.pipe, next.event), 0);
}

TEST_F(DescriptorShortage, ComesAfterOneDescriptorForEachConnectionOfAServer) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    const auto acceptOne = [&](End& accepted) {
        ASSERT_EQ(connect(client), 0);
        ASSERT_EQ(accept(server), AcceptResult::CONNECTED);
        accepted = std::exchange(server, End());
        ASSERT_EQ(platform::platformCreateNextInstance(accepted.pipe, path(), true, true, server.pipe, server.event),
                  0);
        client.close();
    };
    std::vector<End> accepted(20);
    acceptOne(accepted[0]);
    const int handles = Holdings::now().handles;
    for (std::size_t i = 1; i < accepted.size(); ++i) acceptOne(accepted[i]);
    EXPECT_EQ(Holdings::now().handles, handles + 19);
}

/// A server with few descriptors left, and clients of another process, one after the other. Each stays connected.
class FewDescriptors : public DescriptorShortage, public ::testing::WithParamInterface<int> {
  protected:
    static constexpr int CLIENTS = 10;

    void TearDown() override {
        if (child > 0) ::waitpid(child, nullptr, 0);
    }

    /// The clients' process ends with the number of those that got no answer.
    void startClients() {
        child = startChild([this] {
            int failures = 0;
            std::deque<QvPipe> clients;
            for (int i = 0; i < CLIENTS; ++i) {
                QvPipe& client = clients.emplace_back();
                const std::string thrown = thrownBy([&] {
                    client.setConnectTimeout(20000);
                    client.connect(name, true, true);
                    char byte = '?';
                    client.writePipe(&byte, 0, 1);
                    if (client.readPipe(&byte, 0, 1, 20000) != 1 || byte != '!') ++failures;
                });
                if (thrown != "nothing") ++failures;
            }
            return failures;
        });
    }
    int failedClients() { return resultOf(std::exchange(child, 0)); }
    static void answer(QvPipe& pipe) {
        char byte = 0;
        ASSERT_EQ(pipe.readPipe(&byte, 0, 1, 5000), 1);
        pipe.writePipe("!", 0, 1);
    }

    pid_t child = 0;
};

TEST_P(FewDescriptors, ServeEveryClientOrLetItWait) {
    ServerQvPipe server(name, true, true);
    server.setAcceptTimeout(5000);
    startClients();
    LogCapture log(LogCapture::LoggingLevel::WARN);
    Shortage shortage;
    shortage.release(GetParam());
    std::deque<QvPipe> connections;
    int served = 0;
    int shortages = 0;
    while (served < CLIENTS) {
        QvPipe& pipe = connections.emplace_back();
        const std::string thrown = thrownBy([&] { server.accept(pipe); });
        if (thrown == "nothing") {
            ++served;
            answer(pipe);
            continue;
        }
        ASSERT_EQ(thrown, "QvPipeException: acceptPipe failed");
        ++shortages;
        connections.pop_back();
        if (connections.empty()) shortage.release(2 - GetParam());
        if (!connections.empty()) connections.pop_front();
    }
    shortage.end();
    EXPECT_EQ(failedClients(), 0);
    EXPECT_THAT(log.messages(),
                ::testing::AllOf(::testing::SizeIs(shortages), ::testing::Each("ERROR Connect error: 4")));
    EXPECT_GT(shortages, 0);
}

INSTANTIATE_TEST_SUITE_P(From0To8, FewDescriptors, ::testing::Range(0, 9));

TEST_F(DescriptorShortage, IsNoHindranceToACloseDuringAccept) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    Shortage shortage;
    ASSERT_EQ(accept(server, 0), AcceptResult::CONNECT_ERROR);
    std::thread closer;
    EXPECT_EQ((closer = std::thread([&] {
                   std::this_thread::sleep_for(50ms);
                   platform::platformCloseServer(server.pipe, server.event);
               }),
               accept(server, 0)),
              AcceptResult::ABORTED);
    closer.join();
    server.forget();
}

TEST_F(DescriptorShortage, FailsAConnect) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    Shortage shortage;
    EXPECT_EQ(connect(client), ConnectResult::CANNOT_OPEN);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Could not open pipe. GLE=4"));
}

TEST_F(DescriptorShortage, LeavesTheHandleOfAPipeWhoseEventCannotBeMade) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    Shortage shortage;
    shortage.release(1);  // the lock file, then the socket
    const int result = connect(client);
    shortage.end();
    EXPECT_EQ(result, 4);
    EXPECT_TRUE(log.contains("ERROR CreateEvent failed: 4"));
    EXPECT_EQ(client.event, INVALID_NATIVE_HANDLE);
    EXPECT_TRUE(client.isOpen());
}

TEST_F(DescriptorShortage, IsNoErrorThatAPipeKnowsWhenItsEventCannotBeMade) {
    ServerQvPipe server(name, true, true);
    QvPipe client;
    client.bind(name, true, true);
    Shortage shortage;
    shortage.release(1);  // the lock file, then the socket
    const std::string thrown = thrownBy([&] { client.connect(); });
    shortage.end();
    EXPECT_EQ(thrown, "QvPipeException: Unrecognized pipe connect error");
}

/// Runs an action while no poll of two descriptors works.
template <typename Action>
void whileNoWaitWorks(const Action& action) {
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    rlimit one = before;
    one.rlim_cur = 1;
    ::setrlimit(RLIMIT_NOFILE, &one);
    action();
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(DescriptorShortage, LetsAWriteEndInTimeThatCannotWait) {
    End server, client;
    pair(server, client);
    const std::string data(1 << 20, 'x');
    int result = 0;
    whileNoWaitWorks([&] { result = write(client, data); });
    EXPECT_EQ(result, WriteResult::TIMED_OUT);
}

TEST_F(DescriptorShortage, FailsAnAcceptThatCannotWait) {
    ServerQvPipe server(name, true, true);
    QvPipe accepted;
    LogCapture log;
    std::string thrown;
    whileNoWaitWorks([&] {
        EXPECT_EQ(thrownBy([&] { server.accept(accepted); }), "QvPipeException: acceptPipe failed");  // the shortage
        log.clear();
        thrown = thrownBy([&] { server.accept(accepted); });
    });
    EXPECT_EQ(thrown, "QvPipeException: QvPipe wait failed in accept");
    EXPECT_THAT(log.messages(),
                ElementsAre("DEBUG Calling ConnectNamedPipe.", "DEBUG ServerQvPipe_acceptPipe error = 997",
                            "DEBUG ServerQvPipe_acceptPipe WaitForSingleObject status = 4294967295",
                            "DEBUG ServerQvPipe_acceptPipe retval = 2", "ERROR Wait failed in Accept."));
}

}  // namespace
}  // namespace qvtp_test
