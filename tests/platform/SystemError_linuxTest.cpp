#include "platform/SystemError_linux.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

namespace qvtp_test {
namespace {

namespace SystemError = Quovane::Internal::Qvtp::SystemError;

TEST(SystemErrorOfErrno, IsTheNumberThatLogReadersKnow) {
    const std::pair<int, int> numbers[] = {{ENOENT, 2},  {EMFILE, 4},         {ENFILE, 4}, {EACCES, 5},
                                           {EPERM, 5},   {EROFS, 5},          {EBADF, 6},  {ENOMEM, 8},
                                           {ENOBUFS, 8}, {ENAMETOOLONG, 206}, {EIO, 31},   {0, 31}};
    for (const auto& [error, number] : numbers) EXPECT_EQ(SystemError::fromErrno(error), number) << error;
}

TEST(SystemErrorOfErrno, IsAShortageOnlyOfDescriptorsAndOfMemory) {
    for (const int number : {0, 2, 5, 6, 31, 206}) EXPECT_FALSE(SystemError::isShortage(number)) << number;
    EXPECT_TRUE(SystemError::isShortage(4));
    EXPECT_TRUE(SystemError::isShortage(8));
}

}  // namespace
}  // namespace qvtp_test
