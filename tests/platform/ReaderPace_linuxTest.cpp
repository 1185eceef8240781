#include "platform/ReaderPace_linux.h"

#include "platform/Descriptor_linux.h"
#include "support/FailingCall_linux.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <thread>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::Descriptor;
using Quovane::Internal::Qvtp::ReaderPace;

constexpr std::size_t LOOK_EVERY = 65536;

/// A writer whose reader has taken everything, since nothing is really sent.
class PaceOfAReader : public ::testing::Test {
  protected:
    PaceOfAReader() {
        int fds[2] = {-1, -1};
        ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        writer = Descriptor(fds[0]);
        reader = Descriptor(fds[1]);
    }
    void send(std::size_t count) { pace.sent(writer.get(), count); }
    bool isQuick() const { return pace.limit() > ReaderPace::PIECE; }

    Descriptor writer;
    Descriptor reader;
    ReaderPace pace;
};

TEST_F(PaceOfAReader, IsNotQuickBeforeAlmostHalfAMegabyte) {
    for (int i = 0; i < 7; ++i) {
        send(LOOK_EVERY);
        EXPECT_FALSE(isQuick()) << i;
    }
}

TEST_F(PaceOfAReader, IsQuickWhenItHasTakenThatMuchInAShortTime) {
    EXPECT_TRUE(eventually([&] {
        for (int i = 0; i < 8; ++i) send(LOOK_EVERY);
        return isQuick();
    }));
    pace.stalled();
    EXPECT_FALSE(isQuick());
}

TEST_F(PaceOfAReader, IsNotLookedAtAgainSoon) {
    EXPECT_TRUE(eventually([&] {
        for (int i = 0; i < 8; ++i) send(LOOK_EVERY);
        const CallFailure look(CallFailure::Call::IOCTL, EIO);
        for (int i = 0; i < 8; ++i) send(LOOK_EVERY);
        return isQuick() && !look.hasHappened();
    }));
}

TEST_F(PaceOfAReader, IsLookedAtAgainBeforeThatIsOver) {
    EXPECT_TRUE(eventually([&] {
        for (int i = 0; i < 8; ++i) send(LOOK_EVERY);
        return isQuick();
    }));
    std::this_thread::sleep_for(std::chrono::milliseconds(510));
    const CallFailure look(CallFailure::Call::IOCTL, EIO);
    send(LOOK_EVERY);
    EXPECT_TRUE(look.hasHappened());
}

TEST_F(PaceOfAReader, IsNotQuickWhenItHasTakenThatMuchInALongTime) {
    for (int i = 0; i < 5; ++i) send(LOOK_EVERY);
    std::this_thread::sleep_for(std::chrono::milliseconds(110));
    for (int i = 0; i < 5; ++i) send(LOOK_EVERY);
    EXPECT_FALSE(isQuick());
}

TEST_F(PaceOfAReader, IsLookedAtEvery64KiB) {
    send(500000);  // almost quick
    send(LOOK_EVERY - 1);
    EXPECT_FALSE(isQuick());
}

}  // namespace
}  // namespace qvtp_test
