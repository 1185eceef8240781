#include "platform/Receiving_linux.h"

#include "platform/SpinWait_linux.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

namespace Quovane::Internal::Qvtp {

using LocalSocket::WaitResult;
using namespace std::chrono_literals;

namespace {

// The time-out of a blocking call may be late by a tick of the kernel's clock. Only for the larger part of a long wait
// that does not matter.
constexpr auto LONG_WAIT = 500ms;

}  // namespace

bool Receiving::mustWait() const {
    return count_ < 0 && (error_ == EAGAIN || error_ == EWOULDBLOCK);
}

void Receiving::attempt() {
    do {
        receive(MSG_DONTWAIT);
    } while (error_ == EINTR);
}

void Receiving::receive(int flags) {
    char probe = 0;
    const int fd = object_.socket.get();
    count_ = length_ > 0 ? ::recv(fd, buffer_, length_, flags) : ::recv(fd, &probe, 1, flags | MSG_PEEK);
    error_ = count_ < 0 ? errno : 0;
    if (error_ == ECONNRESET) count_ = error_ = 0;
}

LocalSocket::WaitResult Receiving::wait(const Deadline& deadline) {
    if (SpinWait::isWorthwhile() && spin()) return WaitResult::READY;
    if (wake_ == Wake::NEVER && block(deadline)) return WaitResult::READY;
    for (;;) {
        const WaitResult result = object_.wait(POLLIN, deadline);
        if (result != WaitResult::READY) return result;
        attempt();
        if (!mustWait()) return result;
    }
}

/// False if nothing came.
bool Receiving::spin() {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + SpinWait::LIMIT;
    do {
        attempt();
    } while (mustWait() && Clock::now() < end);
    SpinWait::record(!mustWait());
    return !mustWait();
}

/// False if it is time to wait with more care for the clock.
bool Receiving::block(const Deadline& deadline) {
    do {
        const bool mayBlock =
            deadline.isUnlimited() || (deadline.left() >= LONG_WAIT && object_.limitReceive(deadline.left()));
        if (!mayBlock) return false;
        receive(0);
    } while (mustWait() || error_ == EINTR);
    return true;
}

}  // namespace Quovane::Internal::Qvtp
