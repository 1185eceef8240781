#include "platform/PipeFiles_linux.h"
#include "support/Child.h"
#include "support/FailingCall_linux.h"
#include "support/Holdings.h"
#include "support/OutOfMemory.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

namespace qvtp_test {
namespace {

// Somebody removes what a name is made of, while its server lives.

class RemovedFiles : public PipeFiles {
  protected:
    void SetUp() override {
        PipeFiles::SetUp();
        name = "served";
        ASSERT_EQ(create(server), 0);
    }

    std::string file(const std::string& ending) const { return directory + "/served" + ending; }
    void remove(const std::string& ending) const { ASSERT_EQ(::unlink(file(ending).c_str()), 0); }
    /// At one moment: on a busy machine the server would otherwise take its name anew between two files.
    void removeDirectory() const {
        const std::string removed = root + "/removed";
        ASSERT_EQ(std::rename(directory.c_str(), removed.c_str()), 0);
        ASSERT_GT(std::filesystem::remove_all(removed), 0U);
    }
    void createWithoutWatch() {
        server.close();
        const CallFailure failure(CallFailure::Call::INOTIFY, EMFILE, 100);
        ASSERT_EQ(create(server), 0);
        EXPECT_TRUE(failure.hasHappened());
    }
    void moveDirectory() const { ASSERT_EQ(std::rename(directory.c_str(), (root + "/moved").c_str()), 0); }

    static std::string takenAnew(const std::string& path) {
        return "ERROR Removed under the server: " + path + ". The name was taken anew.";
    }
    static std::string lost(const std::string& path, int error) {
        return "ERROR Removed under the server: " + path + ". The name cannot be taken anew: " + std::to_string(error);
    }

    /// Runs the action while an accept waits. Then a client comes.
    template <typename Action>
    void expectServiceAfter(const Action& action, const std::string& line) {
        End client;
        LogCapture log;
        auto accepting = acceptInBackground(server);
        ASSERT_TRUE(eventuallyAccepts(log));
        action();
        const bool isNoticed = eventually([&] { return log.contains(line); });
        if (!isNoticed) server.close();  // the accept would wait for ever
        ASSERT_TRUE(isNoticed) << log.text();
        EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
        EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
        expectExchange(client, server);
        EXPECT_EQ(errorsOf(log), 1);
    }
    static void expectExchange(const End& client, const End& accepted) {
        EXPECT_EQ(write(client, "there"), 0);
        EXPECT_EQ(readText(accepted), "there");
        EXPECT_EQ(write(accepted, "back"), 0);
        EXPECT_EQ(readText(client), "back");
    }
    static long errorsOf(const LogCapture& log) {
        long count = 0;
        for (const std::string& message : log.messages()) count += message.compare(0, 5, "ERROR") == 0;
        return count;
    }
    void acceptClients(int count) {
        for (int i = 0; i < count; ++i) {
            End client, next;
            ASSERT_EQ(connect(client), ConnectResult::CONNECTED);
            ASSERT_EQ(accept(server), AcceptResult::CONNECTED);
            expectExchange(client, server);
            ASSERT_EQ(platform::platformCreateNextInstance(server.pipe, path(), true, true, next.pipe, next.event), 0);
            server = std::move(next);
        }
    }

    End server;
};

TEST_F(RemovedFiles, AreMadeAnewWhileAnAcceptWaits) {
    expectServiceAfter([&] { remove(".sock"); }, takenAnew(file(".sock")));
}

TEST_F(RemovedFiles, AreMadeAnewWhenTheLockFileIsGone) {
    expectServiceAfter([&] { remove(".lock"); }, takenAnew(file(".lock")));
    EXPECT_EQ(lockByte("served.lock"), "3");
}

TEST_F(RemovedFiles, AreMadeAnewWhenBothAreGone) {
    expectServiceAfter(
        [&] {
            remove(".lock");
            remove(".sock");
        },
        takenAnew(file(".sock")));
}

TEST_F(RemovedFiles, AreMadeAnewWithTheirDirectory) {
    expectServiceAfter([&] { removeDirectory(); }, takenAnew(directory));
    EXPECT_EQ(modeOf(directory), 0700U);
}

TEST_F(RemovedFiles, AreMadeAnewWhenTheirDirectoryIsMoved) {
    expectServiceAfter([&] { moveDirectory(); }, takenAnew(directory));
}

TEST_F(RemovedFiles, AreMadeAnewWhenAnotherDirectoryIsInTheOnesPlace) {
    expectServiceAfter(
        [&] {
            moveDirectory();
            ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
        },
        takenAnew(directory));
}

TEST_F(RemovedFiles, AreMadeAnewWhenTheyWereRenamed) {
    expectServiceAfter([&] { ASSERT_EQ(std::rename(file(".sock").c_str(), file(".old").c_str()), 0); },
                       takenAnew(file(".sock")));
}

TEST_F(RemovedFiles, AreMadeAnewInPlaceOfASocketWhoseServerHasNoLock) {
    int foreign = -1;
    expectServiceAfter(
        [&] {
            remove(".sock");
            foreign = listenAs("served.sock");
        },
        takenAnew(file(".sock")));
    ::close(foreign);
}

TEST_F(RemovedFiles, AreMadeAnewAsOftenAsTheyAreRemoved) {
    for (int i = 0; i < 3; ++i) {
        expectServiceAfter([&] { removeDirectory(); }, takenAnew(directory));
        End next;
        ASSERT_EQ(createNext(next), 0);
        server = std::move(next);
    }
}

TEST_F(RemovedFiles, AreNoticedByTheNextAccept) {
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    remove(".sock");
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre(takenAnew(file(".sock"))));
    acceptClients(3);
    EXPECT_EQ(errorsOf(log), 1);
}

TEST_F(RemovedFiles, AreNoticedByTheNextAcceptWhereTheSystemGrantsNoWatch) {
    createWithoutWatch();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    removeDirectory();
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre(takenAnew(directory)));
    acceptClients(1);
}

TEST_F(RemovedFiles, AreNoticedByAnAcceptThatFindsAClient) {
    for (const bool isWatched : {true, false}) {
        if (!isWatched) createWithoutWatch();
        acceptClients(2);  // from now on it has seen its files
        End client;
        ASSERT_EQ(connect(client), ConnectResult::CONNECTED);
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        remove(".sock");
        EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
        EXPECT_THAT(log.messages(), ElementsAre(takenAnew(file(".sock")))) << isWatched;
        expectExchange(client, server);
    }
}

TEST_F(RemovedFiles, AreGoneWhenTheyCanStillBeFoundAndHaveLostTheirLastName) {
    createWithoutWatch();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    const SlowRemoval removal(".sock", SlowRemoval::Look::AT_NAME);
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre(takenAnew(file(".sock"))));
    acceptClients(1);
}

TEST_F(RemovedFiles, AreNotLockedOnceTheyHaveNoName) {
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    remove(".lock");
    {
        const SlowRemoval removal(".lock", SlowRemoval::Look::AT_OPEN_FILE);
        EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    }
    EXPECT_THAT(log.messages(), ElementsAre(lost(file(".lock"), 2)));
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_TRUE(exists("served.lock"));
    acceptClients(1);
}

TEST_F(RemovedFiles, AreNoticedByACreateWhenNoInstanceWaited) {
    End client, next;
    ASSERT_EQ(connect(client), 0);
    ASSERT_EQ(accept(server), 0);
    removeDirectory();
    ASSERT_EQ(platform::platformCreateNextInstance(server.pipe, path(), true, true, next.pipe, next.event), 0);
    EXPECT_EQ(accept(next, 1), AcceptResult::TIMED_OUT);
    End other;
    EXPECT_EQ(connect(other), ConnectResult::CONNECTED);
    EXPECT_EQ(accept(next), AcceptResult::CONNECTED);
}

TEST_F(RemovedFiles, LoseNoClientThatWasQueued) {
    End queued, later, next;
    ASSERT_EQ(connect(queued), 0);
    ASSERT_EQ(write(queued, "before"), 0);
    removeDirectory();
    ASSERT_EQ(accept(server), AcceptResult::CONNECTED);
    EXPECT_EQ(readText(server), "before");
    ASSERT_EQ(createNext(next), 0);
    EXPECT_EQ(connect(later), ConnectResult::CONNECTED);
    EXPECT_EQ(accept(next), AcceptResult::CONNECTED);
    expectExchange(later, next);
}

TEST_F(RemovedFiles, LoseNoClientThatWaitsForItsTurn) {
    End first, second, next;
    ASSERT_EQ(connect(first), 0);
    LogCapture log;
    auto waiting = std::async(std::launch::async, [&] { return connect(second, 20000); });
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Waiting for named pipe."); }));
    remove(".sock");
    ASSERT_EQ(accept(server), AcceptResult::CONNECTED);
    ASSERT_EQ(createNext(next), 0);
    ASSERT_EQ(accept(next), AcceptResult::CONNECTED);
    EXPECT_EQ(waiting.get(), ConnectResult::CONNECTED);
    expectExchange(second, next);
}

TEST_F(RemovedFiles, DisturbNoConnection) {
    End client, next;
    ASSERT_EQ(connect(client), 0);
    ASSERT_EQ(accept(server), 0);
    ASSERT_EQ(createNext(next), 0);
    removeDirectory();
    ASSERT_EQ(accept(next, 1), AcceptResult::TIMED_OUT);
    expectExchange(client, server);
}

TEST_F(RemovedFiles, AreOneRemovalForSeveralInstancesThatWait) {
    End second, one, two;
    ASSERT_EQ(createNext(second), 0);
    LogCapture log;
    auto accepting = acceptInBackground(server);
    auto acceptingToo = acceptInBackground(second);
    ASSERT_TRUE(eventually([&] { return log.count("DEBUG ServerQvPipe_acceptPipe error = 997") == 2; }));
    removeDirectory();
    ASSERT_TRUE(eventually([&] { return log.contains(takenAnew(directory)); }));
    EXPECT_EQ(connect(one), ConnectResult::CONNECTED);
    EXPECT_EQ(connect(two), ConnectResult::CONNECTED);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
    EXPECT_EQ(acceptingToo.get(), AcceptResult::CONNECTED);
    EXPECT_EQ(errorsOf(log), 1);
}

TEST_F(RemovedFiles, LeaveTheNameLockedAndItsDirectionKnown) {
    server.close();
    ASSERT_EQ(create(server, true, false), 0);
    removeDirectory();
    ASSERT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_EQ(resultInChild([&] {
                  End other;
                  return create(other);
              }),
              5);
    End client;
    EXPECT_EQ(connect(client, 2000, true, true), ConnectResult::ACCESS_DENIED);
}

TEST_F(RemovedFiles, CostAConnectionNoDescriptor) {
    acceptClients(2);
    const int handles = Holdings::now().handles;
    for (int i = 0; i < 20; ++i) {
        removeDirectory();
        ASSERT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
        acceptClients(1);
    }
    EXPECT_EQ(Holdings::now().handles, handles);
}

TEST_F(RemovedFiles, AreNotRemovedByTheirServerWhenTheyAreAnothers) {
    removeDirectory();
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    const int foreign = listenAs("served.sock");
    server.close();
    EXPECT_TRUE(exists("served.sock"));
    ::close(foreign);
}

TEST_F(RemovedFiles, EndAnAcceptThatIsClosed) {
    LogCapture log;
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventuallyAccepts(log));
    removeDirectory();
    platform::platformCloseServer(server.pipe, server.event);
    server.forget();
    EXPECT_EQ(accepting.get(), AcceptResult::ABORTED);
}

TEST_F(RemovedFiles, AreNotRemovedByAChangeOfTheirMode) {
    LogCapture log;
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventuallyAccepts(log));
    ASSERT_EQ(::chmod(file(".sock").c_str(), 0600), 0);
    ASSERT_EQ(::chmod(file(".lock").c_str(), 0600), 0);
    End client;
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
    EXPECT_EQ(errorsOf(log), 0);
}

// ---- A name that cannot be taken anew ----

TEST_F(RemovedFiles, AreLeftToAServerThatWasFaster) {
    End client, next;
    ASSERT_EQ(connect(client), 0);
    ASSERT_EQ(accept(server), 0);
    ASSERT_EQ(createNext(next), 0);
    removeDirectory();
    int ready[2], hold[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(hold), 0);
    const pid_t child = startChild([&] {
        End other;
        const char result = create(other) == 0 ? '+' : '-';
        if (::write(ready[1], &result, 1) != 1) ::_exit(1);
        char byte = 0;
        ::close(hold[1]);
        return ::read(hold[0], &byte, 1) == 0 ? 0 : 1;
    });
    char result = 0;
    ASSERT_EQ(::read(ready[0], &result, 1), 1);
    ASSERT_EQ(result, '+');
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(accept(next, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre(lost(directory, 5)));
    expectExchange(client, server);
    next.close();
    server.close();
    EXPECT_TRUE(exists("served.sock"));  // the other one's
    ::close(hold[0]);
    ::close(hold[1]);
    EXPECT_EQ(resultOf(child), 0);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(RemovedFiles, AreLeftToAServerThatWasFasterAlsoWhenThatHasGone) {
    remove(".lock");
    struct flock whole {};
    whole.l_type = F_WRLCK;
    const int lock = ::open(file(".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::fcntl(lock, F_OFD_SETLK, &whole), 0);
    LogCapture log(LogCapture::LoggingLevel::INFO);
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    ::close(lock);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre(lost(file(".lock"), 5)));
}

TEST_F(RemovedFiles, AreTriedAgainWhenTheLockWasRefusedAndNobodyHasIt) {
    LogCapture log(LogCapture::LoggingLevel::INFO);
    remove(".lock");
    {
        const CallFailure failure(CallFailure::Call::FCNTL, EAGAIN);
        EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre(lost(file(".lock"), 5), "INFO The name was taken anew: " + file(".sock")));
    acceptClients(1);
}

/// Uses up all descriptors but so many.
class FewDescriptors {
  public:
    explicit FewDescriptors(int left) {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        rlimit low = before_;
        const int lowest = ::dup(0);
        ::close(lowest);
        low.rlim_cur = static_cast<rlim_t>(lowest + left);
        ::setrlimit(RLIMIT_NOFILE, &low);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

  private:
    rlimit before_{};
};

TEST_F(RemovedFiles, AreTriedAgainWhenDescriptorsHadRunOut) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "the sanitizers need descriptors themselves";
    LogCapture log(LogCapture::LoggingLevel::INFO);
    removeDirectory();
    {
        const FewDescriptors few(0);
        EXPECT_EQ(accept(server, 1), AcceptResult::CONNECT_ERROR);  // no client could be taken
        for (int i = 0; i < 3; ++i) EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    }
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre(lost(directory, 4), "ERROR Connect error: 4",
                                            "INFO The name was taken anew: " + file(".sock")));
    acceptClients(1);
}

TEST_F(RemovedFiles, AreTriedAgainByAnAcceptThatWaits) {
    ASSERT_EQ(std::rename(directory.c_str(), (root + "/moved").c_str()), 0);
    std::fclose(std::fopen(directory.c_str(), "w"));
    LogCapture log(LogCapture::LoggingLevel::INFO);
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventually([&] { return log.contains(lost(directory, 5)); }));
    ASSERT_EQ(::unlink(directory.c_str()), 0);
    ASSERT_TRUE(eventually([&] { return log.contains("INFO The name was taken anew: " + file(".sock")); }));
    End client;
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
    EXPECT_EQ(log.messages().size(), 2U);
}

TEST_F(RemovedFiles, AreServedAgainWhenTheyComeBack) {
    ASSERT_EQ(std::rename(directory.c_str(), (root + "/moved").c_str()), 0);
    std::fclose(std::fopen(directory.c_str(), "w"));
    LogCapture log(LogCapture::LoggingLevel::INFO);
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventually([&] { return log.contains(lost(directory, 5)); }));
    ASSERT_EQ(::unlink(directory.c_str()), 0);
    ASSERT_EQ(std::rename((root + "/moved").c_str(), directory.c_str()), 0);
    ASSERT_TRUE(eventually([&] { return log.contains("INFO The name was taken anew: " + file(".sock")); }));
    End client;
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
}

TEST_F(RemovedFiles, AreNotMadeWhereARelativePathMayLeadByNow) {
    server.close();
    const int previous = ::open(".", O_PATH | O_CLOEXEC);
    ASSERT_EQ(::chdir(root.c_str()), 0);
    ::setenv("QVTP_PIPE_DIR", "pipes", 1);
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(::fchdir(previous), 0);
    ::close(previous);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), IsEmpty());
    removeDirectory();
    EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre(lost("pipes", 2)));
}

TEST_F(RemovedFiles, AreMadeAnewWhateverMemoryRunsOut) {
    for (long nth = 1; nth < 100; ++nth) {
        removeDirectory();
        {
            const OutOfMemory shortage(nth, OutOfMemory::ONCE);
            const int result = accept(server, 1);
            EXPECT_TRUE(result == AcceptResult::TIMED_OUT || result == AcceptResult::CONNECT_ERROR) << nth;
            if (!shortage.hasFailed()) return;
        }
        EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT) << nth;
        acceptClients(1);
    }
    FAIL() << "there is no end";
}

}  // namespace
}  // namespace qvtp_test
