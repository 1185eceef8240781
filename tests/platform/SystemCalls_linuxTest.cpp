#include "platform/NameLock_linux.h"
#include "platform/PipeAddress_linux.h"
#include "platform/PipeContract.h"
#include "platform/SystemError_linux.h"
#include "support/FailingCall_linux.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace qvtp_test {
namespace {

using Call = CallFailure::Call;

/// Calls of the system that fail where no test can bring that about otherwise.
class SystemCalls : public PipeContract {
  protected:
    /// A server, a client, a few bytes each way, the end. Returns what went wrong.
    std::string exchange() {
        End server, client, next;
        if (create(server) != 0) return "create";
        if (connect(client) != 0) return "connect";
        if (accept(server) != 0) return "accept";
        if (platform::platformCreateNextInstance(server.pipe, path(), true, true, next.pipe, next.event) != 0) {
            return "create next";
        }
        if (write(client, "there") != 0 || readText(server) != "there") return "client's write";
        if (write(server, "back") != 0 || readText(client) != "back") return "server's write";
        next.close();
        server.close();
        End late;
        if (connect(late) != ConnectResult::CANNOT_OPEN) return "close";
        platform::PipeAddress address;
        address.resolve(path(), platform::PipeAddress::Directory::MUST_EXIST);
        char direction = 0;
        const bool isEmpty = ::read(address.openLockFile(O_RDONLY).get(), &direction, 1) == 0;
        return isEmpty ? "nothing" : "direction of a name that nobody serves";
    }
};

class InterruptedCall : public SystemCalls, public ::testing::WithParamInterface<Call> {};

TEST_P(InterruptedCall, IsMadeAgain) {
    int failures = 0;
    for (bool isLast = false; !isLast;) {
        const CallFailure failure(GetParam(), EINTR, 3, failures);
        EXPECT_EQ(exchange(), "nothing") << "number " << failures;
        isLast = !failure.hasHappened();
        ++failures;
    }
    EXPECT_GT(failures, 1);
}

INSTANTIATE_TEST_SUITE_P(OfFilesAndSockets, InterruptedCall,
                         ::testing::Values(Call::ACCEPT, Call::CONNECT, Call::FCNTL, Call::FTRUNCATE, Call::OPEN,
                                           Call::PREAD, Call::PWRITE, Call::RECEIVE, Call::SEND));

TEST_F(SystemCalls, AreSavedByAReaderOfMessagesThatAreALittleLongerThanItsBuffer) {
    End server, client;
    pair(server, client);
    std::string data;
    ASSERT_EQ(write(client, std::string(4096, 'a')), 0);
    ASSERT_EQ(read(server, data, 4096), 4096);
    ASSERT_EQ(write(client, std::string(4100, 'b')), 0);
    ASSERT_EQ(read(server, data, 4096), 4096);
    const CallFailure failure(Call::RECEIVE, EIO, 1000);
    EXPECT_EQ(read(server, data, 4), 4);
    EXPECT_EQ(data, "bbbb");
    EXPECT_FALSE(failure.hasHappened());
}

/// They would need another call all the same.
TEST_F(SystemCalls, AreNotMadeDearerForAReaderOfLongMessages) {
    End server, client;
    pair(server, client);
    std::string data;
    const auto isSaved = [&] {
        EXPECT_EQ(write(client, std::string(4100, 'b')), 0);
        EXPECT_EQ(read(server, data, 4096), 4096);
        const CallFailure interruption(Call::RECEIVE, EINTR);
        EXPECT_EQ(read(server, data, 4), 4);
        return !interruption.hasHappened();
    };
    EXPECT_FALSE(isSaved());
    EXPECT_TRUE(isSaved());
    ASSERT_EQ(write(client, std::string(20000, 'a')), 0);
    ASSERT_EQ(read(server, data, 4096), 4096);
    ASSERT_EQ(read(server, data, 20000), 20000 - 4096);
    for (int i = 0; i < 10; ++i) EXPECT_FALSE(isSaved()) << i;
    EXPECT_TRUE(eventually(isSaved));
    EXPECT_TRUE(isSaved());
}

TEST_F(SystemCalls, FailTheNextInstanceWhoseEventCannotBeMade) {
    End server, next;
    ASSERT_EQ(create(server), 0);
    const CallFailure failure(Call::EVENTFD, EMFILE);
    EXPECT_EQ(platform::platformCreateNextInstance(server.pipe, path(), true, true, next.pipe, next.event),
              platform::SystemError::TOO_MANY_OPEN_FILES);
    EXPECT_TRUE(failure.hasHappened());
    EXPECT_FALSE(next.isOpen());
}

TEST_F(SystemCalls, DoNotWaitWhereSomebodyOnlyLooksForAClient) {
    End server;
    ASSERT_EQ(create(server), 0);
    // A busy machine may keep it from running, but not each time.
    EXPECT_TRUE(eventually([&] {
        return elapsed([&] {
                   for (int i = 0; i < 300; ++i) EXPECT_FALSE(platform::platformHasClient(server.pipe));
               }) < std::chrono::milliseconds(200);
    }));
}

TEST_F(SystemCalls, FailAConnectWhoseWaitCouldHaveNoLimit) {
    for (const Call call : {Call::SETSOCKOPT, Call::FCNTL}) {
        End server, first, second;
        ASSERT_EQ(create(server), 0);
        ASSERT_EQ(connect(first), 0);
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        const CallFailure failure(call, EINVAL, 1000, 1);  // the first of the socket's size, or of the lock
        EXPECT_LT(elapsed([&] { EXPECT_EQ(connect(second, 5000), ConnectResult::CANNOT_OPEN); }), AT_ONCE);
        EXPECT_TRUE(failure.hasHappened());
        EXPECT_THAT(log.messages(), ElementsAre("ERROR Could not open pipe. GLE=31"));
    }
}

TEST_F(SystemCalls, PauseAnAcceptThatFailsForAReasonThatLasts) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    for (int i = 0; i < 3; ++i) {
        const CallFailure failure(Call::ACCEPT, EACCES);
        EXPECT_GE(elapsed([&] { EXPECT_EQ(accept(server, 0), AcceptResult::CONNECT_ERROR); }), 95ms);
    }
    EXPECT_THAT(log.messages(),
                ElementsAre("ERROR Connect error: 5", "ERROR Connect error: 5", "ERROR Connect error: 5"));
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
}

TEST_F(SystemCalls, PauseNoAcceptOnAHandleThatMeansNothing) {
    EXPECT_LT(elapsed([&] { EXPECT_EQ(accept(End(), 0), AcceptResult::CONNECT_ERROR); }), 95ms);
}

TEST_F(SystemCalls, EndThePauseOfAnAcceptThatIsClosed) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    auto accepting = std::async(std::launch::async, [&] {
        const CallFailure failure(Call::ACCEPT, EACCES);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(accept(server, 0), AcceptResult::CONNECT_ERROR);
        return std::chrono::steady_clock::now() - start;
    });
    ASSERT_TRUE(eventually([&] { return log.contains("ERROR Connect error: 5"); }));
    server.close();
    EXPECT_LT(accepting.get(), 95ms);
}

TEST_F(SystemCalls, AskForTheProcessOnlyOnce) {
    ASSERT_EQ(exchange(), "nothing");
    const CallFailure question(Call::GETPID, EPERM);
    EXPECT_EQ(exchange(), "nothing");
    EXPECT_FALSE(question.hasHappened());
}

TEST_F(SystemCalls, SetTheLengthOfTheQueueOnlyWhenItChanges) {
    End server, client, next, third;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    {
        const CallFailure change(Call::LISTEN, EINVAL);
        ASSERT_EQ(accept(server), 0);
        ASSERT_EQ(createNext(next), 0);
        EXPECT_FALSE(change.hasHappened());
    }
    {
        const CallFailure change(Call::LISTEN, EINVAL, 0);
        ASSERT_EQ(createNext(third), 0);  // now two may wait
    }
    End second, busy;
    EXPECT_EQ(connect(client), 0);
    EXPECT_EQ(connect(second), 0);
    EXPECT_EQ(connect(busy, 20), ConnectResult::TIMED_OUT);
}

TEST_F(SystemCalls, ShortenTheQueueWhenAnInstanceEnds) {
    End server, second, client, busy;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(createNext(second), 0);
    second.close();
    EXPECT_EQ(connect(client), 0);
    EXPECT_EQ(connect(busy, 20), ConnectResult::TIMED_OUT);
}

TEST_F(SystemCalls, MayGiveAClientTheDescriptorZero) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);  // it has reserved what else it needs
    ASSERT_EQ(connect(client), 0);
    const int input = ::dup(0);
    ::close(0);
    EXPECT_EQ(accept(server), 0);
    EXPECT_NE(::fcntl(0, F_GETFD), -1);  // it has it
    EXPECT_EQ(write(client, "there"), 0);
    EXPECT_EQ(readText(server), "there");
    server.close();
    EXPECT_EQ(::fcntl(0, F_GETFD), -1);
    if (input >= 0) ::dup2(input, 0);
    ::close(input);
}

TEST_F(SystemCalls, PauseAnAcceptWhateverTheStandardInputIs) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[1]);
    const int input = ::dup(0);
    ::dup2(ends[0], 0);  // at its end, which every poll reports
    ::close(ends[0]);
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    {
        const CallFailure failure(Call::ACCEPT, EACCES);
        EXPECT_GE(elapsed([&] { EXPECT_EQ(accept(server, 0), AcceptResult::CONNECT_ERROR); }), 95ms);
    }
    ::close(0);
    if (input >= 0) ::dup2(input, 0);
    ::close(input);
}

TEST_F(SystemCalls, LetAMessageOf32KiBLeaveAsAWhole) {
    for (const std::size_t size : {std::size_t{32768}, std::size_t{32769}}) {
        const std::string data(size, 'x');
        name = uniquePipeName();
        End server, client;
        pair(server, client);
        std::size_t written = 0;
        ASSERT_EQ(platform::platformWriteSome(client.pipe, client.event, data.data(), size, nullptr, 0, written), 0);
        EXPECT_EQ(written == size, size == 32768) << written;
    }
}

TEST_F(SystemCalls, FindNothingOnAHandleThatDoesNotRead) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client, 2000, false, true), 0);
    EXPECT_EQ(platform::platformAvailable(client.pipe), 0U);
    char byte = 0;
    EXPECT_EQ(platform::platformPeek(client.pipe, &byte, 1), 0U);
    client.close();
    EXPECT_EQ(platform::platformPeek(client.pipe, &byte, 1), 0U);
}

TEST_F(SystemCalls, SignalNoEventForWhichNobodyWaits) {
    End server, client;
    pair(server, client);
    const CallFailure signal(Call::WRITE, EAGAIN);
    client.close();
    server.close();
    EXPECT_FALSE(signal.hasHappened());
}

TEST_F(SystemCalls, NeedNoDescriptorOfTheDirectoryForAConnection) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    const CallFailure second(Call::OPEN, EMFILE, 1, 1);  // the first is the lock's
    EXPECT_EQ(connect(client), 0);
    EXPECT_FALSE(second.hasHappened());
}

TEST_F(SystemCalls, EndAReadInTimeWithoutALimitOfTheSocket) {
    End server, client;
    pair(server, client);
    const CallFailure failure(Call::SETSOCKOPT, EINVAL, 1000);
    std::string data;
    EXPECT_EQ(read(client, data, 1, 550), ReadResult::TIMED_OUT);  // so long that it would like to have one
    EXPECT_TRUE(failure.hasHappened());
}

TEST_F(SystemCalls, FailAServerThatTheSystemGivesNoLock) {
    const auto outcome = [this](int error) {
        const CallFailure failure(Call::FCNTL, error, 1000);
        End server;
        return create(server);
    };
    EXPECT_EQ(outcome(ENOLCK), platform::SystemError::GENERAL_FAILURE);
    // These say that another one has it. It has it no more.
    EXPECT_EQ(outcome(EAGAIN), platform::SystemError::ACCESS_DENIED);
    EXPECT_EQ(outcome(EACCES), platform::SystemError::ACCESS_DENIED);
    End server;
    EXPECT_EQ(create(server), 0);
}

TEST_F(SystemCalls, HoldALockUntilItIsGivenBack) {
    End server;
    ASSERT_EQ(create(server), 0);  // makes the directory
    platform::PipeAddress address;
    ASSERT_EQ(address.resolve(path() + "-lock", platform::PipeAddress::Directory::MUST_EXIST), 0);
    platform::NameLock lock, other;
    ASSERT_EQ(lock.take(address, '3'), platform::NameLock::Result::HELD);
    EXPECT_EQ(other.take(address, '3'), platform::NameLock::Result::HELD_BY_ANOTHER);
    lock.giveBack();
    EXPECT_FALSE(lock.isHeld());
    ASSERT_EQ(other.take(address, '3'), platform::NameLock::Result::HELD);
    lock.giveBack();  // once more: what the other one has is left alone
    char direction = 0;
    EXPECT_EQ(::pread(address.openLockFile(O_RDONLY).get(), &direction, 1, 0), 1);
    EXPECT_EQ(direction, '3');
    other.giveBack();
}

TEST_F(SystemCalls, KnowNobodyBeforeThereIsAClient) {
    End server;
    ASSERT_EQ(create(server), 0);
    EXPECT_EQ(platform::platformPeer(server.pipe).processId, -1);
}

TEST_F(SystemCalls, FailAWriteForWhichTheSystemHasNoMemory) {
    End server, client;
    pair(server, client);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    {
        const CallFailure failure(Call::SEND, ENOBUFS);
        EXPECT_EQ(write(client, "x"), WriteResult::FAILED);
    }
    EXPECT_THAT(log.messages(), ElementsAre("ERROR WriteFile error: 8"));
    EXPECT_EQ(write(client, "x"), WriteResult::WRITTEN);
}

}  // namespace
}  // namespace qvtp_test
