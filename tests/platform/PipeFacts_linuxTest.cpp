#include <qvtp/io/QvPipe.h>
#include <qvtp/platform/PipeFacts.h>

#include "platform/PipeFiles_linux.h"
#include "support/FailingCall_linux.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace qvtp_test {
namespace {

using Quovane::Io::findPipeFacts;
using State = Quovane::Io::PipeFacts::State;

class PipeFactsOfFiles : public PipeFiles {
  protected:
    void SetUp() override {
        PipeFiles::SetUp();
        ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    }
    std::string reason(State state) {
        const auto facts = findPipeFacts(name);
        EXPECT_EQ(facts.state, state);
        return facts.reason;
    }
};

TEST_F(PipeFactsOfFiles, ShowADirectoryThatIsMissing) {
    ASSERT_EQ(::rmdir(directory.c_str()), 0);
    EXPECT_EQ(reason(State::NO_DIRECTORY), "There is no pipe directory " + directory + ". A server makes it.");
}

TEST_F(PipeFactsOfFiles, ShowADirectoryThatOthersMayEnter) {
    ASSERT_EQ(::chmod(directory.c_str(), 0750), 0);
    EXPECT_EQ(reason(State::BAD_DIRECTORY), "The pipe directory " + directory +
                                                " is open to other users. Take their rights away (chmod 700 " +
                                                directory + ").");
}

TEST_F(PipeFactsOfFiles, ShowADirectoryOfAnotherUser) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
    ASSERT_EQ(::chown(directory.c_str(), 12345, 12345), 0);
    EXPECT_EQ(reason(State::BAD_DIRECTORY),
              "The pipe directory " + directory +
                  " belongs to user 12345, and this process is of user 0. Use a directory "
                  "of its own.");
}

TEST_F(PipeFactsOfFiles, ShowWhatIsNoDirectory) {
    ASSERT_EQ(::rmdir(directory.c_str()), 0);
    std::ofstream(directory) << "file";
    EXPECT_EQ(reason(State::BAD_DIRECTORY),
              "The pipe directory " + directory + " is no directory. Remove what is there.");
    ASSERT_EQ(::unlink(directory.c_str()), 0);
    ASSERT_EQ(::symlink(root.c_str(), directory.c_str()), 0);
    EXPECT_EQ(reason(State::BAD_DIRECTORY), "The pipe directory " + directory + " is a link. Name what it leads to.");
    ASSERT_EQ(::unlink(directory.c_str()), 0);
}

TEST_F(PipeFactsOfFiles, ShowALockFileThatIsNone) {
    const std::string lock = directory + "/" + name + ".lock";
    ASSERT_EQ(::mkdir(lock.c_str(), 0700), 0);
    EXPECT_EQ(reason(State::BAD_DIRECTORY),
              "The lock file " + lock + " is no regular file that this user may open: Permission denied. Remove it.");
    ASSERT_EQ(::rmdir(lock.c_str()), 0);
}

TEST_F(PipeFactsOfFiles, ShowThatTheServerThatHeldTheLockHasGone) {
    std::ofstream(directory + "/" + name + ".lock") << "3";
    EXPECT_EQ(reason(State::FREE), "");
    EXPECT_EQ(findPipeFacts(name).path, directory + "/" + name + ".sock");
}

TEST_F(PipeFactsOfFiles, DoNotShowASocketWithoutALockFileToWhichClientsConnect) {
    const int foreign = listenAs(name + ".sock");
    EXPECT_EQ(reason(State::FREE), "");
    EXPECT_NO_THROW(Quovane::Io::QvPipe(name, true, true));
    ::close(foreign);
}

TEST_F(PipeFactsOfFiles, ShowThatDescriptorsRanOut) {
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none{0, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto facts = findPipeFacts(name);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
    EXPECT_EQ(facts.state, State::UNKNOWN);
    EXPECT_EQ(facts.reason,
              "The lock file " + directory + "/" + name + ".lock cannot be looked at: Too many open files.");
}

// Only such a directory is opened, with a descriptor of its own.
TEST_F(PipeFactsOfFiles, ShowThatALongDirectoryCannotBeOpenedForNow) {
    use(root + "/" + std::string(120, 'd'));
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    for (const auto& [error, text] :
         {std::pair(EMFILE, "Too many open files"), std::pair(ENFILE, "Too many open files in system"),
          std::pair(ENOMEM, "Cannot allocate memory"), std::pair(EIO, "Input/output error")}) {
        const CallFailure failure(CallFailure::Call::OPEN, error);
        EXPECT_EQ(reason(State::UNKNOWN), "The pipe directory " + directory + " cannot be opened: " + text + ".");
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_EQ(reason(State::FREE), "");
}

TEST_F(PipeFactsOfFiles, ShowALongDirectoryThatOthersMayEnter) {
    use(root + "/" + std::string(120, 'd'));
    ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(directory.c_str(), 0755), 0);
    EXPECT_EQ(reason(State::BAD_DIRECTORY), "The pipe directory " + directory +
                                                " is open to other users. Take their rights away (chmod 700 " +
                                                directory + ").");
}

TEST_F(PipeFactsOfFiles, ShowADirectoryThatIsMissingAtTheTop) {
    use("/qvtp-there-is-no-such-directory");
    const auto facts = findPipeFacts(name);
    EXPECT_EQ(facts.state, State::NO_DIRECTORY);
    EXPECT_EQ(facts.reason.rfind("There is no pipe directory " + directory, 0), 0U) << facts.reason;
}

TEST_F(PipeFactsOfFiles, ShowADirectoryWhosePathIsTooLong) {
    use(root + "/" + std::string(5000, 'd'));
    EXPECT_EQ(reason(State::BAD_DIRECTORY),
              "The pipe directory " + directory +
                  " cannot be looked at: File name too long. Let this user enter the directories above it, or name "
                  "another one in QVTP_PIPE_DIR.");
}

TEST_F(PipeFactsOfFiles, ShowALockFileThatIsALink) {
    const std::string lock = directory + "/linked.lock";
    ASSERT_EQ(::symlink("/dev/null", lock.c_str()), 0);
    name = "linked";
    const std::string found = reason(State::BAD_DIRECTORY);
    EXPECT_EQ(found.rfind("The lock file " + lock + " is no regular file that this user may open: ", 0), 0U) << found;
}

TEST_F(PipeFactsOfFiles, ShowANameAsFreeWhoseLockNobodyCanBeAskedAbout) {
    End server;
    ASSERT_EQ(create(server), 0);
    EXPECT_EQ(findPipeFacts(name).state, State::SERVED);
    const CallFailure failure(CallFailure::Call::FCNTL, EINVAL);
    EXPECT_EQ(findPipeFacts(name).state, State::FREE);
    EXPECT_TRUE(failure.hasHappened());
}

}  // namespace
}  // namespace qvtp_test
