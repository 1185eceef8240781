#include "platform/ReaderPace_linux.h"

#include "platform/LocalSocket_linux.h"

#include <limits>

namespace Quovane::Internal::Qvtp {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t LOOK_EVERY = 65536;
// A reader that has taken this much within a window is quick. It is more than programs between two pipes keep for
// themselves before they pass on the pace of a slow one.
constexpr std::size_t QUICK_BYTES = 524288;
constexpr auto WINDOW = 100ms;
constexpr auto QUICK_FOR = 1s;
constexpr auto LOOK_AGAIN = 500ms;  // before that is over

}  // namespace

std::size_t ReaderPace::limit() const {
    return Clock::now() < quickUntil_ ? std::numeric_limits<std::size_t>::max() : PIECE;
}

void ReaderPace::sent(int fd, std::size_t count) {
    sent_ += count;
    sinceLook_ += count;
    if (sinceLook_ < LOOK_EVERY) return;
    sinceLook_ = 0;
    const Clock::time_point now = Clock::now();
    if (quickUntil_ - now > LOOK_AGAIN) return;
    if (now - since_ > WINDOW) {
        since_ = now;
        sent_ = count;
    }
    // Memory, so never less than the bytes that are left.
    const int unread = LocalSocket::unreadMemory(fd);
    if (unread < 0 || sent_ < static_cast<std::size_t>(unread) + QUICK_BYTES) return;
    quickUntil_ = now + QUICK_FOR;
    since_ = now;
    sent_ = 0;
}

}  // namespace Quovane::Internal::Qvtp
