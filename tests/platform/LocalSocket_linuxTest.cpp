#include "platform/LocalSocket_linux.h"

#include "support/Process.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

namespace qvtp_test {
namespace {

namespace LocalSocket = Quovane::Internal::Qvtp::LocalSocket;
using Quovane::Internal::Qvtp::Deadline;
using Quovane::Internal::Qvtp::Descriptor;

TEST(LocalSocket, RefusesAPathThatDoesNotFitIntoAnAddress) {
    const std::string path(200, 'p');
    const Descriptor socket = LocalSocket::create();
    errno = 0;
    EXPECT_FALSE(LocalSocket::bind(socket.get(), path));
    EXPECT_EQ(errno, ENAMETOOLONG);
    errno = 0;
    EXPECT_FALSE(LocalSocket::connect(socket.get(), path));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(LocalSocket::connectBefore(socket.get(), path, Deadline::after(1)), LocalSocket::QueueResult::FAILED);
}

TEST(LocalSocket, WaitsNoMoreForAQueueWhenTheTimeIsOver) {
    const std::string path = makeTestDirectory() + "/full.sock";
    const Descriptor listener = LocalSocket::create();
    const Descriptor first = LocalSocket::create();
    const Descriptor second = LocalSocket::create();
    ASSERT_TRUE(LocalSocket::bind(listener.get(), path));
    ASSERT_EQ(::listen(listener.get(), 0), 0);
    ASSERT_TRUE(LocalSocket::connect(first.get(), path));
    const Deadline deadline = Deadline::after(1);
    ASSERT_TRUE(eventually([&] { return deadline.isOver(); }));
    EXPECT_EQ(LocalSocket::connectBefore(second.get(), path, deadline), LocalSocket::QueueResult::NOT_CONNECTED);
}

TEST(LocalSocket, LimitsAReceiveToWholeSecondsAndPartsOfThem) {
    const Descriptor socket = LocalSocket::create();
    for (const auto limit :
         {std::chrono::microseconds(1), std::chrono::microseconds(1000000), std::chrono::microseconds(2500000)}) {
        ASSERT_TRUE(LocalSocket::setReceiveTimeout(socket.get(), limit));
        timeval found{};
        socklen_t size = sizeof found;
        ASSERT_EQ(::getsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &found, &size), 0);
        // The system rounds up, to the steps of its clock.
        const auto set = std::chrono::seconds(found.tv_sec) + std::chrono::microseconds(found.tv_usec);
        EXPECT_GE(set, limit);
        EXPECT_LT(set, limit + std::chrono::milliseconds(20));
    }
}

TEST(LocalSocket, LimitsAReceiveToASecondExactly) {
    const Descriptor socket = LocalSocket::create();
    ASSERT_TRUE(LocalSocket::setReceiveTimeout(socket.get(), std::chrono::seconds(1)));
    timeval found{};
    socklen_t size = sizeof found;
    ASSERT_EQ(::getsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &found, &size), 0);
    EXPECT_EQ(found.tv_sec, 1);
    EXPECT_EQ(found.tv_usec, 0);  // a second is a whole number of steps of any clock
}

TEST(LocalSocket, KnowsNothingOfWhatIsUnreadWhereThereIsNone) {
    EXPECT_EQ(LocalSocket::unreadMemory(-1), -1);
}

TEST(DescriptorOfAFile, StaysWhenItIsMovedToItself) {
    Descriptor event = Descriptor::event();
    const int number = event.get();
    Descriptor& same = event;
    event = std::move(same);
    EXPECT_EQ(event.get(), number);
    EXPECT_TRUE(event.isOpen());
}

}  // namespace
}  // namespace qvtp_test
