#include "platform/PipeFiles_linux.h"
#include "support/FailingCall_linux.h"
#include "support/OutOfMemory.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <thread>
#include <tuple>
#include <utility>

namespace qvtp_test {
namespace {

using Call = CallFailure::Call;
namespace InputResult = Quovane::Internal::Qvtp::InputResult;

constexpr int GENERAL_FAILURE = 31;
constexpr int ACCESS_DENIED = 5;

/// What becomes of each routine when a call of the system fails under it.
class FailedCalls : public PipeFiles {
  protected:
    void SetUp() override {
        PipeFiles::SetUp();
        name = "served";
    }
    /// That nothing is left of a create that failed.
    void expectService() {
        End server, client;
        ASSERT_EQ(create(server), 0);
        ASSERT_EQ(connect(client), 0);
        ASSERT_EQ(accept(server), 0);
        EXPECT_EQ(write(client, "there"), 0);
        EXPECT_EQ(readText(server), "there");
    }
    static int takeInput(const End& end, int timeoutMs, bool wakeable) {
        int taken = 0;
        char byte = 0;
        return platform::platformTakeInput(end.pipe, end.event, &byte, 1, timeoutMs, wakeable, taken);
    }
};

// ---- Creating and accepting ----

class FailedCreate : public FailedCalls, public ::testing::WithParamInterface<Call> {};

TEST_P(FailedCreate, LeavesNothingBehind) {
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    {
        End server;
        const CallFailure failure(GetParam(), ENOLCK);
        EXPECT_EQ(create(server), GENERAL_FAILURE);
        EXPECT_TRUE(failure.hasHappened());
        EXPECT_FALSE(server.isOpen());
    }
    EXPECT_THAT(log.messages(), ElementsAre("ERROR CreateNamedPipe failed: 31"));
    EXPECT_FALSE(exists("served.new"));
    expectService();
}

INSTANTIATE_TEST_SUITE_P(Of, FailedCreate,
                         ::testing::Values(Call::EVENTFD, Call::FCNTL, Call::LISTEN, Call::PWRITE, Call::RENAME,
                                           Call::SOCKET));

TEST_F(FailedCalls, DoNoHarmWhereAFileIsLookedAt) {
    int failed = 0;
    for (int n = 0;; ++n) {
        {
            End server;
            const CallFailure failure(Call::FSTAT, EIO, 1, n);
            const int result = create(server);
            if (!failure.hasHappened()) break;
            EXPECT_TRUE(result == 0 || result == GENERAL_FAILURE || result == ACCESS_DENIED) << n << ": " << result;
            EXPECT_EQ(server.isOpen(), result == 0) << n;
            if (result != 0) ++failed;
        }
        expectService();
    }
    EXPECT_GE(failed, 3);  // of the directory, of the lock, of the fresh socket
}

TEST_F(FailedCalls, RefuseANameWhoseLockNobodyCanBeAskedAbout) {
    expectService();
    const int lock = ::open((directory + "/served.lock").c_str(), O_RDWR);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(lock, F_OFD_SETLK, &whole), 0);
    {
        End server;
        const CallFailure failure(Call::FCNTL, EINVAL, 1, 1);  // the first asks for the lock
        EXPECT_EQ(create(server), ACCESS_DENIED);
        EXPECT_TRUE(failure.hasHappened());
    }
    ::close(lock);
    expectService();
}

TEST_F(FailedCalls, AreNoneWhereAClientLeftBeforeItWasAccepted) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    const CallFailure failure(Call::ACCEPT, ECONNABORTED);
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
    EXPECT_TRUE(failure.hasHappened());
}

TEST_F(FailedCalls, LoseANameUntilTheNextTryOfAnAcceptWithALimit) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(::unlink((directory + "/served.sock").c_str()), 0);
    LogCapture log;
    auto accepting = std::async(std::launch::async, [&] {
        const CallFailure failure(Call::SOCKET, EMFILE);
        return accept(server, 20000);
    });
    EXPECT_TRUE(eventually([&] { return log.contains("INFO The name was taken anew: " + directory + "/served.sock"); }))
        << log.text();
    EXPECT_TRUE(log.contains("ERROR Removed under the server: " + directory +
                             "/served.sock. The name cannot be taken anew: 4"));
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
}

class NextInstance : public FailedCalls {};

TEST_F(NextInstance, HasTheDirectionOfItsSiblingAndNeedsNone) {
    End server, client, next, other;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    ASSERT_EQ(accept(server), 0);
    EXPECT_EQ(platform::platformCreateNextInstance(client.pipe, path(), true, true, next.pipe, next.event), 0)
        << "an end of a client has no name";
    EXPECT_EQ(platform::platformCreateNextInstance(server.pipe, path(), true, false, other.pipe, other.event),
              ACCESS_DENIED)
        << "all instances have one direction";
}

// ---- The directory ----

TEST_F(FailedCalls, DenyADirectoryWhosePathLeadsThroughAFileOrInACircle) {
    const std::string file = root + "/file";
    const std::string circle = root + "/circle";
    std::ofstream(file) << "no directory";
    ASSERT_EQ(::symlink(circle.c_str(), circle.c_str()), 0);
    const std::string longName(100, 'd');  // is reached through a descriptor
    for (const std::string& bad : {file + "/pipes", circle + "/pipes", circle + "/" + longName}) {
        use(bad);
        End client;
        EXPECT_EQ(connect(client), ConnectResult::ACCESS_DENIED) << bad;
    }
}

TEST_F(FailedCalls, KeepAClientWaitingInADirectoryWithALongPath) {
    use(root + "/" + std::string(100, 'd'));
    End server, second, client, late;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(createNext(second), 0);
    ASSERT_EQ(connect(client), 0);
    ASSERT_EQ(accept(server), 0);
    second.close();  // the name is held, and nobody listens
    EXPECT_EQ(connect(late, 50), ConnectResult::TIMED_OUT);
}

TEST_F(FailedCalls, TakeANameAnewInARelativeDirectory) {
    char cwd[4096];
    ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(::chdir(root.c_str()), 0);
    use("pipes");
    {
        End server, client;
        ASSERT_EQ(create(server), 0);
        ASSERT_EQ(::unlink("pipes/served.sock"), 0);
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
        EXPECT_EQ(log.messages().size(), 1U);
        EXPECT_TRUE(log.text().find("served.sock. The name was taken anew.") != std::string::npos) << log.text();
        EXPECT_EQ(connect(client), 0);
        EXPECT_EQ(accept(server), 0);
    }
    ASSERT_EQ(::chdir(cwd), 0);
}

/// A server that has lost its socket, and whose directory's parent is no longer what it was.
class MovedParent : public FailedCalls {
  protected:
    void SetUp() override {
        FailedCalls::SetUp();
        ASSERT_EQ(::mkdir(parent().c_str(), 0700), 0);
        use(parent() + "/pipes");
        ASSERT_EQ(create(server), 0);
        ASSERT_EQ(std::rename(parent().c_str(), (root + "/moved").c_str()), 0);
        ASSERT_EQ(::unlink((root + "/moved/pipes/served.sock").c_str()), 0);
    }
    std::string parent() const { return root + "/parent"; }
    /// Reported once.
    void expectLoss(const std::string& path) {
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
        EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
        EXPECT_THAT(log.messages(),
                    ElementsAre("ERROR Removed under the server: " + path + ". The name cannot be taken anew: 31"));
    }

    End server;
};

TEST_F(MovedParent, IsALossOfTheDirectoryWhereAFileIsInItsPlace) {
    std::ofstream(parent()) << "no directory";
    expectLoss(directory);
}

TEST_F(MovedParent, IsALossOfTheSocketWhereNobodyCanSeeTheDirectory) {
    ASSERT_EQ(::symlink(parent().c_str(), parent().c_str()), 0);
    expectLoss(directory + "/served.sock");
}

TEST_F(FailedCalls, LeaveANameToTheNextAcceptWhereAFileIsLookedAt) {
    for (int n = 0;; ++n) {
        End server, client;
        ASSERT_EQ(create(server), 0);
        ASSERT_EQ(::unlink((directory + "/served.sock").c_str()), 0);
        bool isLast = false;
        {
            const CallFailure failure(Call::FSTAT, EIO, 1, n);
            EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT) << n;
            isLast = !failure.hasHappened();
        }
        EXPECT_EQ(accept(server, 1), AcceptResult::TIMED_OUT) << n;
        EXPECT_EQ(connect(client), 0) << n;
        EXPECT_EQ(accept(server), 0) << n;
        if (isLast) return;
    }
}

TEST_F(FailedCalls, EndAnAcceptAlsoAfterItHasWaited) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    auto accepting = std::async(std::launch::async, [&] {
        const CallFailure failure(Call::ACCEPT, EACCES, 1, 1);
        return accept(server, 0);
    });
    ASSERT_TRUE(eventuallyAccepts(log));
    ASSERT_EQ(connect(client), 0);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECT_ERROR);
    EXPECT_TRUE(log.contains("ERROR Connect error: 5"));
    EXPECT_EQ(accept(server), 0);
}

// ---- Connecting ----

TEST_F(FailedCalls, FailAConnect) {
    End server;
    ASSERT_EQ(create(server), 0);
    const std::string line = "ERROR Could not open pipe. GLE=";
    for (const auto& [call, error, text] :
         {std::tuple(Call::SOCKET, EMFILE, line + "4"), std::tuple(Call::CONNECT, EPROTO, line + "31")}) {
        End client;
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        const CallFailure failure(call, error);
        EXPECT_EQ(connect(client), ConnectResult::CANNOT_OPEN);
        EXPECT_THAT(log.messages(), ElementsAre(text));
    }
}

TEST_F(FailedCalls, DenyAClientWhoMayNotUseTheSocket) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    const CallFailure failure(Call::CONNECT, EACCES);
    EXPECT_EQ(connect(client), ConnectResult::ACCESS_DENIED);
    EXPECT_TRUE(failure.hasHappened());
}

TEST_F(FailedCalls, DenyAClientAlsoWithoutTheMemoryToSayWhy) {
    expectService();
    ASSERT_EQ(::chmod(directory.c_str(), 0755), 0);
    for (long n = 1; n < 1000; ++n) {
        End client;
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        int result = 0;
        bool isLast = false;
        {
            const OutOfMemory failure(n, OutOfMemory::ONCE);
            result = connect(client);
            isLast = !failure.hasFailed();
        }
        EXPECT_TRUE(result == ConnectResult::ACCESS_DENIED || result == ConnectResult::CANNOT_OPEN) << n;
        EXPECT_LE(log.messages().size(), 1U) << n;
        if (!isLast) continue;
        EXPECT_EQ(result, ConnectResult::ACCESS_DENIED);
        EXPECT_NE(log.text().find("is open to other users"), std::string::npos) << log.text();
        return;
    }
    FAIL() << "allocates without end";
}

// ---- Reading and writing ----

class FailedTransfer : public FailedCalls {
  protected:
    void SetUp() override {
        FailedCalls::SetUp();
        pair(server, client);
    }
    End server, client;
};

TEST_F(FailedTransfer, IsAFailedReadWhereItHasWaited) {
    LogCapture log(LogCapture::LoggingLevel::WARN);
    std::string data;
    {
        const CallFailure failure(Call::RECEIVE, EIO, 1, 1);
        EXPECT_EQ(read(server, data), ReadResult::FAILED);
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_THAT(log.messages(), ElementsAre("ERROR ReadFile failed: 31"));
    ASSERT_EQ(write(client, "there"), 0);
    EXPECT_EQ(readText(server), "there");
}

TEST_F(FailedTransfer, IsNoneOfAWaitThatCannotBeWoken) {
    const CallFailure failure(Call::EVENTFD, EMFILE, 1000);
    EXPECT_EQ(takeInput(server, 5, true), InputResult::TIMED_OUT);
    EXPECT_TRUE(failure.hasHappened());
    for (const int timeoutMs : {0, 20000}) {
        EXPECT_LT(elapsed([&] { EXPECT_EQ(takeInput(server, timeoutMs, true), InputResult::WOKEN); }), 10s)
            << "it looks from time to time";
    }
    platform::platformWake(server.pipe);
    EXPECT_EQ(takeInput(server, 5, true), InputResult::WOKEN);
    ASSERT_EQ(write(client, "x"), 0);
    EXPECT_EQ(takeInput(server, 20000, true), InputResult::INPUT);
}

TEST_F(FailedTransfer, IsOverWhenThereIsAnEventForItsWait) {
    {
        const CallFailure failure(Call::EVENTFD, EMFILE);
        EXPECT_EQ(takeInput(server, 5, true), InputResult::TIMED_OUT);
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_EQ(takeInput(server, 60, true), InputResult::TIMED_OUT) << "longer than from time to time";
    platform::platformWake(server.pipe);
    EXPECT_EQ(takeInput(server, 20000, true), InputResult::WOKEN);
}

TEST_F(FailedTransfer, IsAnEndWhereItCannotWait) {
    LogCapture log(LogCapture::LoggingLevel::WARN);
    std::string data;
    {
        const CallFailure failure(Call::POLL, ENOMEM);
        EXPECT_EQ(read(server, data, 100, 300), 0);
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(FailedTransfer, IsLeftToTheReadByAWaitForInput) {
    const CallFailure failure(Call::POLL, ENOMEM);
    EXPECT_EQ(takeInput(server, 1000, true), InputResult::INPUT);
    EXPECT_TRUE(failure.hasHappened());
}

TEST_F(FailedTransfer, IsNoneWhereALongWaitCanHaveNoLimit) {
    const int failed = CallFailure::total();
    auto reading = std::async(std::launch::async, [&] {
        const CallFailure failure(Call::SETSOCKOPT, ENOMEM, 1000);
        std::string data;
        const int count = read(server, data, 100, 20000);
        return std::make_pair(count, failure.hasHappened());
    });
    ASSERT_TRUE(eventually([&] { return CallFailure::total() > failed; }));
    ASSERT_EQ(write(client, "there"), 0);
    EXPECT_EQ(reading.get(), std::make_pair(5, true));
}

TEST_F(FailedTransfer, IsNoneOfAWriteThatCannotSeeWhatItsReaderHasTaken) {
    const int failed = CallFailure::total();
    const std::string block(1 << 20, 'b');
    auto writing = std::async(std::launch::async, [&] {
        const CallFailure failure(Call::IOCTL, EINVAL, 1000000);
        const int result = write(client, block);
        return std::make_pair(result, failure.hasHappened());
    });
    // Some come before it waits, and one with each look while it does.
    ASSERT_TRUE(eventually([&] { return CallFailure::total() > failed + 8; }));
    EXPECT_EQ(readAll(server, block.size()), block);
    EXPECT_EQ(writing.get(), std::make_pair(static_cast<int>(WriteResult::WRITTEN), true));
}

TEST_F(FailedTransfer, CountsNothingWhereTheSystemDoesNot) {
    ASSERT_EQ(write(client, "there"), 0);
    {
        const CallFailure failure(Call::IOCTL, EINVAL);
        EXPECT_EQ(platform::platformAvailable(server.pipe), 0U);
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_EQ(platform::platformAvailable(server.pipe), 5U);
}

TEST_F(FailedTransfer, ShowsNothingWhereTheSystemDoesNot) {
    ASSERT_EQ(write(client, "there"), 0);
    std::string seen(5, '\0');
    {
        const CallFailure failure(Call::RECEIVE, EINVAL);
        EXPECT_EQ(platform::platformPeek(server.pipe, seen.data(), seen.size()), 0U);
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_EQ(platform::platformPeek(server.pipe, seen.data(), seen.size()), 5U);
    EXPECT_EQ(seen, "there");
}

TEST_F(FailedTransfer, IsNoEndOfAnInstanceThatWaits) {
    End waiting;
    ASSERT_EQ(createNext(waiting), 0);
    EXPECT_FALSE(platform::platformPeerHasClosed(waiting.pipe));
}

TEST_F(FailedTransfer, KnowsNobodyWhereTheSystemDoesNotSay) {
    const CallFailure failure(Call::GETSOCKOPT, EINVAL);
    const platform::PeerIds peer = platform::platformPeer(server.pipe);
    EXPECT_EQ(peer.processId, platform::PeerIds().processId);
    EXPECT_EQ(peer.userId, platform::PeerIds().userId);
    EXPECT_TRUE(failure.hasHappened());
}

}  // namespace
}  // namespace qvtp_test
