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

// The time-out of a blocking call may be late, by up to an eighth of it. Only for a part of a long wait that does not
// matter.
constexpr auto LONG_WAIT = 500ms;

// A read of this size refills a buffer. One of more is for a part of a large message, and takes what it needs.
constexpr std::size_t SMALLEST_REFILL = 2048;
constexpr std::size_t LARGEST_REFILL = 8192;

}  // namespace

bool Receiving::mustWait() const {
    return count_ < 0 && error_ == EAGAIN;
}

bool Receiving::isRefill() const {
    return length_ >= SMALLEST_REFILL && length_ <= LARGEST_REFILL;
}

void Receiving::attempt() {
    if (object_.ahead.size() > 0) {
        takeAhead();
        return;
    }
    do {
        receive(MSG_DONTWAIT);
    } while (error_ == EINTR);
}

/// And what is there after it: a reader gets no less than without it, and a refill takes no less from the connection.
/// Only a refill is content with what was all when it came.
void Receiving::takeAhead() {
    error_ = 0;
    count_ = 1;
    if (length_ == 0) return;
    const std::size_t taken = object_.ahead.take(buffer_, length_);
    count_ = static_cast<ssize_t>(taken);
    if (taken == length_ || (isRefill() && object_.ahead.wasLast())) return;
    char* const rest = buffer_ + taken;
    const std::size_t room = length_ - taken;
    const ssize_t more =
        isRefill() ? receiveAhead(rest, room, MSG_DONTWAIT) : ::recv(object_.socket.get(), rest, room, MSG_DONTWAIT);
    if (more > 0) count_ += more;
}

void Receiving::receive(int flags) {
    char probe = 0;
    const int fd = object_.socket.get();
    if (length_ == 0) {
        count_ = ::recv(fd, &probe, 1, flags | MSG_PEEK);
    } else if (isRefill() && object_.ahead.isWorthwhile()) {
        count_ = receiveAhead(buffer_, length_, flags);
    } else {
        count_ = ::recv(fd, buffer_, length_, flags);
    }
    error_ = count_ < 0 ? errno : 0;
    if (count_ > 0 && isRefill()) object_.ahead.readEnded(count_ == static_cast<ssize_t>(length_));
    if (error_ == ECONNRESET) count_ = error_ = 0;
}

ssize_t Receiving::receiveAhead(char* buffer, std::size_t length, int flags) {
    iovec blocks[] = {{buffer, length}, {object_.ahead.room(), ReadAhead::capacity()}};
    msghdr message{};
    message.msg_iov = blocks;
    message.msg_iovlen = 2;
    const ssize_t count = ::recvmsg(object_.socket.get(), &message, flags);
    if (count <= static_cast<ssize_t>(length)) return count;
    object_.ahead.filled(static_cast<std::size_t>(count) - length);
    return static_cast<ssize_t>(length);
}

LocalSocket::WaitResult Receiving::wait(const Deadline& deadline) {
    const SpinWait::Wait counted;
    if (SpinWait::isWorthwhile() && spin()) return WaitResult::READY;
    if (wake_ == Wake::NEVER && block(deadline)) return WaitResult::READY;
    for (;;) {
        const WaitResult result =
            object_.wait(POLLIN, deadline, wake_ == Wake::POSSIBLE ? object_.wakeEvent.get() : -1);
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

/// False if it is time to wait with more care for the clock, or if a limit of an earlier wait has ended this one.
bool Receiving::block(const Deadline& deadline) {
    do {
        if (!deadline.isUnlimited()) {
            const auto left = deadline.left();
            if (left < LONG_WAIT || !object_.limitReceive(left)) return false;
        }
        receive(0);
    } while (error_ == EINTR);
    return !mustWait();
}

}  // namespace Quovane::Internal::Qvtp
