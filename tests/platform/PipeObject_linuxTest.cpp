#include "platform/PipeObject_linux.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>

namespace qvtp_test {
namespace {

using namespace Quovane::Internal::Qvtp;
using namespace std::chrono_literals;

std::chrono::microseconds receiveTimeoutOf(const Descriptor& socket) {
    timeval found{};
    socklen_t size = sizeof found;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &found, &size);
    return std::chrono::seconds(found.tv_sec) + std::chrono::microseconds(found.tv_usec);
}

TEST(PipeObject, LimitsAReceiveSoThatALateTimerIsStillInTime) {
    PipeObject object;
    object.socket = LocalSocket::create();
    ASSERT_TRUE(object.limitReceive(8s));
    EXPECT_LE(receiveTimeoutOf(object.socket), 7s);  // timers are late by up to an eighth
    EXPECT_GE(receiveTimeoutOf(object.socket), 4s);
}

TEST(PipeObject, KeepsNoLimitThatWouldBeLate) {
    PipeObject object;
    object.socket = LocalSocket::create();
    ASSERT_TRUE(object.limitReceive(2800ms));
    const auto limit = receiveTimeoutOf(object.socket);
    ASSERT_TRUE(object.limitReceive(limit));
    EXPECT_LE(receiveTimeoutOf(object.socket), limit * 7 / 8);
    ASSERT_TRUE(object.limitReceive(limit + 1ms));
    EXPECT_LE(receiveTimeoutOf(object.socket), limit * 7 / 8);
}

}  // namespace
}  // namespace qvtp_test
