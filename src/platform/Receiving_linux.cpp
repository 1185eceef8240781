#include "platform/Receiving_linux.h"

#include "platform/SpinWait_linux.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <chrono>

namespace Quovane::Internal::Qvtp {

using LocalSocket::WaitResult;
using namespace std::chrono_literals;

namespace {

// The time-out of a blocking call may be late by a tick of the kernel's clock. Only for the larger part of a long wait
// that does not matter.
constexpr auto LONG_WAIT = 500ms;

// A read of more than this is for a part of a large message, and takes what it needs.
constexpr std::size_t LARGE_READ = 8192;

}  // namespace

bool Receiving::mustWait() const {
    return count_ < 0 && (error_ == EAGAIN || error_ == EWOULDBLOCK);
}

void Receiving::attempt() {
    if (object_.ahead.size() > 0) {
        count_ = length_ > 0 ? static_cast<ssize_t>(object_.ahead.take(buffer_, length_)) : 1;
        error_ = 0;
        return;
    }
    do {
        receive(MSG_DONTWAIT);
    } while (error_ == EINTR);
}

void Receiving::receive(int flags) {
    char probe = 0;
    const int fd = object_.socket.get();
    if (length_ == 0) {
        count_ = ::recv(fd, &probe, 1, flags | MSG_PEEK);
    } else if (length_ <= LARGE_READ && object_.ahead.isWorthwhile()) {
        count_ = receiveAhead(flags);
    } else {
        count_ = ::recv(fd, buffer_, length_, flags);
    }
    error_ = count_ < 0 ? errno : 0;
    if (count_ > 0 && length_ > 0) object_.ahead.readEnded(count_ == static_cast<ssize_t>(length_));
    if (error_ == ECONNRESET) count_ = error_ = 0;
}

ssize_t Receiving::receiveAhead(int flags) {
    iovec blocks[] = {{buffer_, length_}, {object_.ahead.room(), ReadAhead::capacity()}};
    msghdr message{};
    message.msg_iov = blocks;
    message.msg_iovlen = 2;
    const ssize_t count = ::recvmsg(object_.socket.get(), &message, flags);
    const auto length = static_cast<ssize_t>(length_);
    if (count <= length) return count;
    object_.ahead.filled(static_cast<std::size_t>(count - length));
    return length;
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
