#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include "platform/PipeAddress_linux.h"
#include "platform/PipeFiles_linux.h"
#include "support/Child.h"
#include "support/Thrown.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace qvtp_test {
namespace {

using Quovane::Io::QvPipe;
using Quovane::Io::ServerQvPipe;

TEST_F(PipeFiles, LieInAPrivateDirectoryThatIsMadeOnFirstUse) {
    End server;
    ASSERT_EQ(createNamed(server, "Name"), 0);
    EXPECT_EQ(modeOf(directory), 0700U);
    EXPECT_EQ(modeOf(directory + "/name.lock"), 0600U);
    EXPECT_TRUE(exists("name.sock"));
}

TEST_F(PipeFiles, LieUnderTmpByUserWithoutTheVariable) {
    for (const bool empty : {false, true}) {
        empty ? ::setenv("QVTP_PIPE_DIR", "", 1) : ::unsetenv("QVTP_PIPE_DIR");
        platform::PipeAddress address;
        ASSERT_EQ(address.resolve(path(), platform::PipeAddress::Directory::CREATE), 0);
        EXPECT_EQ(address.socketPath(address.socketFile()),
                  "/tmp/qvtp-pipe-" + std::to_string(::geteuid()) + "/" + name + ".sock");
    }
}

TEST_F(PipeFiles, RecordTheDirectionInTheLockFile) {
    End reads, writes, both;
    ASSERT_EQ(createNamed(reads, "r", true, false), 0);
    ASSERT_EQ(createNamed(writes, "w", false, true), 0);
    ASSERT_EQ(createNamed(both, "b", true, true), 0);
    EXPECT_EQ(lockByte("r.lock") + lockByte("w.lock") + lockByte("b.lock"), "123");
}

TEST_F(PipeFiles, LeaveOnlyTheLockFileBehind) {
    End server;
    ASSERT_EQ(createNamed(server, "a"), 0);
    server.close();
    EXPECT_THAT(files(), ElementsAre("a.lock"));
}

TEST_F(PipeFiles, EncodeNamesByByte) {
    End server;
    ASSERT_EQ(createNamed(server, ".Ab_c-9.x /\xC3"), 0);
    EXPECT_TRUE(exists("%2eab_c-9.x%20%5c%c3.sock"));
}

TEST_F(PipeFiles, OfASocketGoWithTheLastConnection) {
    End server, client;
    ASSERT_EQ(createNamed(server, "a"), 0);
    ASSERT_EQ(connectNamed(client, "a", 2000), 0);
    ASSERT_EQ(accept(server), 0);
    EXPECT_TRUE(exists("a.sock"));
    server.close();
    EXPECT_THAT(files(), ElementsAre("a.lock"));
}

TEST_F(PipeFiles, HaveNamesOfLettersAndDigitsAsTheyAre) {
    End server;
    ASSERT_EQ(createNamed(server, "az09"), 0);
    EXPECT_TRUE(exists("az09.sock"));
}

TEST_F(PipeFiles, HashLongNames) {
    End server, other;
    ASSERT_EQ(createNamed(server, std::string(60, 'x')), 0);
    EXPECT_TRUE(exists(std::string(60, 'x') + ".sock"));
    ASSERT_EQ(createNamed(other, std::string(61, 'x')), 0);
    const std::vector<std::string> all = files();
    const auto hashed = std::find_if(all.begin(), all.end(), [](const std::string& f) { return f[24] == '~'; });
    ASSERT_NE(hashed, all.end());
    EXPECT_EQ(hashed->size(), 24U + 1 + 32 + 5);
}

TEST_F(PipeFiles, BeginALongNameWithItsFirst24Characters) {
    End server;
    ASSERT_EQ(createNamed(server, "abcdefghijklmnopqrstuvwxyz" + std::string(40, '-')), 0);
    const std::vector<std::string> all = files();
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [](const std::string& file) {
        return file.compare(0, 25, "abcdefghijklmnopqrstuvwx~") == 0;
    }));
}

TEST_F(PipeFiles, HashByAPublishedFunction) {
    // FNV-1a with 128 bits of 61 times "a", as any other implementation computes it.
    __extension__ using Wide = unsigned __int128;
    Wide expected = (static_cast<Wide>(0x6c62272e07bb0142) << 64) | 0x62b821756295c58d;
    const Wide prime = (static_cast<Wide>(1) << 88) + 0x13b;
    for (int i = 0; i < 61; ++i) expected = (expected ^ 'a') * prime;
    char digits[33];
    std::snprintf(digits, sizeof digits, "%016llx%016llx", static_cast<unsigned long long>(expected >> 64),
                  static_cast<unsigned long long>(expected));
    End server;
    ASSERT_EQ(createNamed(server, std::string(61, 'A')), 0);
    EXPECT_TRUE(exists(std::string(24, 'a') + "~" + digits + ".sock"));
}

TEST_F(PipeFiles, WorkInADirectoryThatDoesNotFitIntoASocketAddress) {
    ASSERT_EQ(::mkdir((root + "/" + std::string(100, 'd')).c_str(), 0700), 0);
    use(root + "/" + std::string(100, 'd') + "/" + std::string(100, 'e'));
    End server, client;
    ASSERT_EQ(create(server), 0);
    EXPECT_EQ(connect(client), 0);
    EXPECT_EQ(accept(server), 0);
}

class UnsafeDirectory : public PipeFiles {
  protected:
    /// Of both sides, each with a line of its own that says why and what helps.
    void expectRefusal(const std::string& reason) {
        End server, client;
        LogCapture log;
        EXPECT_EQ(create(server), 5);
        EXPECT_EQ(connect(client), ConnectResult::ACCESS_DENIED);
        const std::string refused = "ERROR Pipe refused. The pipe directory " + directory + " " + reason;
        EXPECT_THAT(log.messages(), ElementsAre(refused, "ERROR CreateNamedPipe failed: 5", refused));
    }
};

TEST_F(UnsafeDirectory, IsRefusedWhenOthersMayEnter) {
    ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0);
    expectRefusal("is open to other users. Take their rights away (chmod 700 " + directory + ").");
}

TEST_F(UnsafeDirectory, IsRefusedWhenItIsALink) {
    ASSERT_EQ(::mkdir((root + "/real").c_str(), 0700), 0);
    ASSERT_EQ(::symlink((root + "/real").c_str(), directory.c_str()), 0);
    expectRefusal("is a link. Name what it leads to.");
}

TEST_F(UnsafeDirectory, IsRefusedWhenItIsAFile) {
    std::ofstream(directory) << "x";
    expectRefusal("is no directory. Remove what is there.");
}

TEST_F(UnsafeDirectory, IsRefusedWhenItBelongsToAnother) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    ASSERT_EQ(::chown(directory.c_str(), 12345, 12345), 0);
    expectRefusal("belongs to user 12345, and this process is of user 0. Use a directory of its own.");
}

TEST_F(UnsafeDirectory, IsRefusedToAClientBelowAFile) {
    std::ofstream(directory) << "x";
    for (const std::string& below : {directory + "/a", directory + "/" + std::string(100, 'a')}) {
        use(below);
        End client;
        EXPECT_EQ(connect(client), ConnectResult::ACCESS_DENIED) << below;
    }
}

TEST_F(PipeFiles, AreRefusedWithAReasonWhereTheDirectoryCannotBeMade) {
    use(root + "/missing/directory");
    End server, client;
    LogCapture log;
    EXPECT_EQ(create(server), 2);
    EXPECT_EQ(connect(client), ConnectResult::CANNOT_OPEN);
    EXPECT_THAT(log.messages(),
                ElementsAre("ERROR Pipe refused. There is no pipe directory " + directory +
                                ", and it cannot be made: No such file or directory. Make the directories above it, "
                                "which this user may write to, or name another one in QVTP_PIPE_DIR.",
                            "ERROR CreateNamedPipe failed: 2", "ERROR Could not open pipe. GLE=2"));
}

TEST_F(PipeFiles, AreNotRefusedForANameThatIsTaken) {
    End first, second;
    ASSERT_EQ(create(first), 0);
    LogCapture log;
    EXPECT_EQ(create(second), 5);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR CreateNamedPipe failed: 5"));
}

TEST_F(PipeFiles, AreFoundMissingWithoutADirectory) {
    End client;
    LogCapture log;
    EXPECT_EQ(connect(client), ConnectResult::CANNOT_OPEN);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Could not open pipe. GLE=2"));
    EXPECT_EQ(modeOf(directory), 0U);
}

TEST_F(PipeFiles, AreNoHindranceWhenTheyAreStale) {
    End server, client;
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    std::ofstream(directory + "/a.lock") << "1";
    ::close(listenAs("a.sock"));
    ::close(listenAs("a.new"));
    ASSERT_EQ(connectNamed(client, "a", 2000), ConnectResult::CANNOT_OPEN);
    ASSERT_EQ(createNamed(server, "a"), 0);
    EXPECT_EQ(connectNamed(client, "a", 2000), 0);
    EXPECT_EQ(lockByte("a.lock"), "3");
}

TEST_F(PipeFiles, TakeASocketAloneAsAForeignServer) {
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    const int listener = listenAs("foreign.sock");
    End client;
    ASSERT_EQ(connectNamed(client, "foreign", 2000), 0);
    const int accepted = ::accept(listener, nullptr, nullptr);
    ASSERT_EQ(write(client, "hello"), 0);
    char data[5];
    EXPECT_EQ(::recv(accepted, data, 5, 0), 5);
    ASSERT_EQ(::send(accepted, "back", 4, 0), 4);
    EXPECT_EQ(readText(client), "back");
    ::close(accepted);
    ::close(listener);
    EXPECT_EQ(connectNamed(client, "foreign", 2000), ConnectResult::CANNOT_OPEN);
}

TEST_F(PipeFiles, MakeAClientWaitForAServerThatHasLockedButDoesNotListenYet) {
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    const int fd = ::open((directory + "/a.lock").c_str(), O_RDWR | O_CREAT, 0600);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
    End client;
    EXPECT_EQ(connectNamed(client, "a", 60), ConnectResult::TIMED_OUT);
    ASSERT_EQ(::write(fd, "3", 1), 1);
    EXPECT_EQ(connectNamed(client, "a", 60), ConnectResult::TIMED_OUT);
    ::close(fd);
    EXPECT_EQ(connectNamed(client, "a", 60), ConnectResult::CANNOT_OPEN);
}

// ---- Processes ----

TEST_F(PipeFiles, KeepASecondProcessFromServingTheName) {
    End server;
    ASSERT_EQ(create(server), 0);
    EXPECT_EQ(resultInChild([&] {
                  End other;
                  return create(other);
              }),
              5);
    EXPECT_EQ(resultInChild([&] {
                  End other;
                  return create(other, true, true, false);
              }),
              5);
}

TEST_F(PipeFiles, LetTheNextServerInAfterAKill) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = startChild([&] {
        End server;
        const char result = create(server) == 0 ? '+' : '-';
        if (::write(ready[1], &result, 1) != 1) ::_exit(1);
        return ::pause();
    });
    char result = 0;
    ASSERT_EQ(::read(ready[0], &result, 1), 1);
    ASSERT_EQ(result, '+');
    End client;
    EXPECT_EQ(connect(client), 0);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    End server, again;
    EXPECT_EQ(readText(client), "-3");
    EXPECT_EQ(connect(again), ConnectResult::CANNOT_OPEN);
    EXPECT_EQ(create(server), 0);
    EXPECT_EQ(connect(again), 0);
}

TEST_F(PipeFiles, LetOneOfManyProcessesWin) {
    constexpr int PROCESSES = 6;
    for (int round = 0; round < 30; ++round) {
        int go[2], done[2];
        ASSERT_EQ(::pipe(go), 0);
        ASSERT_EQ(::pipe(done), 0);
        std::vector<pid_t> children;
        for (int i = 0; i < PROCESSES; ++i) {
            children.push_back(startChild([&] {
                char byte = 0;
                ::close(go[1]);
                if (::read(go[0], &byte, 1) != 0) ::_exit(9);
                End server;
                const char result = create(server) == 0 ? 'w' : 'l';
                if (::write(done[1], &result, 1) != 1) ::_exit(9);
                return ::pause();
            }));
        }
        ::close(go[0]);
        ::close(go[1]);  // they all start now
        int winners = 0;
        for (int i = 0; i < PROCESSES; ++i) {
            char byte = 0;
            ASSERT_EQ(::read(done[0], &byte, 1), 1);
            winners += byte == 'w';
        }
        for (const pid_t child : children) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
        ::close(done[0]);
        ::close(done[1]);
        ASSERT_EQ(winners, 1) << round;
    }
}

TEST_F(PipeFiles, LetAForkedChildCloseWithoutHarmToTheParent) {
    End server, client;
    pair(server, client);
    End next;
    ASSERT_EQ(createNext(next), 0);
    EXPECT_EQ(resultInChild([&] {
                  server.close();
                  client.close();
                  next.close();
                  return 0;
              }),
              0);
    EXPECT_EQ(write(client, "still here"), 0);
    EXPECT_EQ(readText(server), "still here");
    End other;
    EXPECT_EQ(connect(other), 0);
}

TEST_F(PipeFiles, GiveTheNameAwayWhenTheParentClosesAlthoughAChildLives) {
    End server, client;
    pair(server, client);
    int hold[2];
    ASSERT_EQ(::pipe(hold), 0);
    const pid_t child = startChild([&] {
        char byte = 0;
        ::close(hold[1]);
        return ::read(hold[0], &byte, 1) == 0 ? 0 : 1;
    });
    server.close();
    EXPECT_EQ(readText(client), "-3");
    End again;
    EXPECT_EQ(create(again), 0);
    ::close(hold[0]);
    ::close(hold[1]);
    ::waitpid(child, nullptr, 0);
}

TEST_F(PipeFiles, AreNotInheritedByProgramsThatAreStarted) {
    // A program inherits what this one was handed down itself: compare with before.
    const auto inherited = [&] {
        const std::string command = "ls -l /proc/self/fd | grep -c -e eventfd -e socket -e '\\.lock' -e " + directory;
        std::FILE* const output = ::popen(command.c_str(), "r");
        char count[16] = {};
        EXPECT_NE(std::fgets(count, sizeof count, output), nullptr);
        ::pclose(output);
        return std::string(count);
    };
    const std::string handedDown = inherited();
    End server, client;
    pair(server, client);
    End next;
    ASSERT_EQ(createNext(next), 0);
    EXPECT_EQ(inherited(), handedDown);
}

TEST_F(PipeFiles, AreNotTakenForAForeignServersWhenTheLockCannotBeRead) {
    End server, client;
    ASSERT_EQ(createNamed(server, "loop"), 0);
    const std::string lock = directory + "/loop.lock";
    ASSERT_EQ(std::rename(lock.c_str(), (lock + ".moved").c_str()), 0);
    ASSERT_EQ(::symlink((lock + ".moved").c_str(), lock.c_str()), 0);  // which is not followed
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    EXPECT_EQ(connectNamed(client, "loop", 200), ConnectResult::CANNOT_OPEN);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Could not open pipe. GLE=31"));
}

/// Something else in the place of a lock file.
class ForeignLockFile : public PipeFiles {
  protected:
    void SetUp() override {
        PipeFiles::SetUp();
        ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
        lock = directory + "/" + name + ".lock";
    }
    void expectRefusal() {
        End server, client;
        LogCapture log;
        EXPECT_EQ(create(server), 5);
        EXPECT_EQ(connect(client, 0), ConnectResult::ACCESS_DENIED);
        const std::string refused = "ERROR Pipe refused. The lock file " + lock +
                                    " is no regular file that this user may open: Permission denied. Remove it.";
        EXPECT_THAT(log.messages(), ElementsAre(refused, "ERROR CreateNamedPipe failed: 5", refused));
    }

    std::string lock;
};

TEST_F(ForeignLockFile, IsRefusedWhenItIsAFifo) {
    ASSERT_EQ(::mkfifo(lock.c_str(), 0600), 0);
    expectRefusal();
}

TEST_F(ForeignLockFile, IsRefusedWhenItIsADevice) {
    if (::mknod(lock.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) GTEST_SKIP() << "only root can make devices";
    expectRefusal();
}

TEST_F(ForeignLockFile, IsRefusedWhenItIsASocket) {
    ::close(listenAs(name + ".lock"));
    expectRefusal();
}

TEST_F(ForeignLockFile, IsRefusedWhenItIsADirectory) {
    ASSERT_EQ(::mkdir(lock.c_str(), 0700), 0);
    expectRefusal();
}

TEST_F(PipeFiles, SurviveSignalsDuringAWait) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, nullptr);
    End server, client;
    pair(server, client);
    const pthread_t reader = ::pthread_self();
    std::atomic<bool> done{false};
    std::atomic<int> sent{0};
    std::thread signals([&] {
        while (!done) {
            ::pthread_kill(reader, SIGUSR1);
            ++sent;
            std::this_thread::sleep_for(2ms);
        }
    });
    std::string data;
    EXPECT_GE(elapsed([&] { EXPECT_EQ(read(server, data, 100, 200), ReadResult::TIMED_OUT); }), 195ms);
    for (const int timeoutMs : {0, 20000}) {  // such waits block in the read itself
        auto writing = std::async(std::launch::async, [&, before = sent.load()] {
            EXPECT_TRUE(eventually([&] { return sent >= before + 10; }));
            return write(client, "x");
        });
        EXPECT_EQ(read(server, data, 100, timeoutMs), 1) << timeoutMs;
        EXPECT_EQ(writing.get(), 0);
    }
    End busy, next;
    ASSERT_EQ(createNext(next), 0);
    ASSERT_EQ(connect(busy), 0);
    End waiter;
    EXPECT_GE(elapsed([&] { EXPECT_EQ(connect(waiter, 200), ConnectResult::TIMED_OUT); }), 195ms);
    done = true;
    signals.join();
}

}  // namespace
}  // namespace qvtp_test
