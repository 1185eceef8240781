#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

using namespace qvtp_test;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr gid_t ANOTHER_GROUP = 1;

/// Such a program has rights that its user has not, so the user may not have it write files.
TEST(EnvironmentLogOfASetGroupIdProgram, IsOff) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to a group that the user is not in";
    const std::string directory = makeTestDirectory();
    const std::string program = directory + "/probe";
    std::filesystem::copy_file(QVTP_LOG_PROBE, program);
    setEnvironment("QVTP_LOG", "DEBUG");
    EXPECT_EQ(Process(program, {}, directory + "/before.txt").wait(), 0);
    EXPECT_THAT(contentsOfFile(directory + "/before.txt"), HasSubstr("DEBUG - "));

    ASSERT_EQ(::chown(program.c_str(), 0, ANOTHER_GROUP), 0);
    ASSERT_EQ(::chmod(program.c_str(), 02755), 0);
    EXPECT_EQ(Process(program, {}, directory + "/after.txt").wait(), 0);
    unsetEnvironment("QVTP_LOG");
    EXPECT_THAT(contentsOfFile(directory + "/after.txt"), IsEmpty());
}

}  // namespace
