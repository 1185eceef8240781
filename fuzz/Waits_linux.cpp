#include "fuzz/Waits_linux.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

// Names that the linker's option --wrap gives.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
ssize_t __real_recv(int fd, void* buffer, size_t length, int flags);
ssize_t __real_recvmsg(int fd, msghdr* message, int flags);
int __real_ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* signals);
}
std::chrono::steady_clock::time_point realNow() __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point movedNow() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

Waits::Peer* currentPeer = nullptr;
nanoseconds moved{0};  // what the clock was moved on by

/// The system ends it a little later than asked for; never earlier.
void passTime(nanoseconds limit) {
    moved += limit + microseconds(1);
}

/// What limits the calls of this descriptor that wait.
nanoseconds receiveLimit(int fd) {
    timeval limit{};
    socklen_t size = sizeof limit;
    if (::getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, &size) != 0) std::abort();
    return seconds(limit.tv_sec) + microseconds(limit.tv_usec);
}

template <typename Receive>
ssize_t receive(int fd, int flags, const Receive& receiveWith) {
    if (currentPeer == nullptr || (flags & MSG_DONTWAIT) != 0) return receiveWith(flags);
    for (;;) {
        const ssize_t count = receiveWith(flags | MSG_DONTWAIT);
        if (count >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return count;
        if (currentPeer->act()) continue;
        const nanoseconds limit = receiveLimit(fd);
        if (limit == nanoseconds::zero()) std::abort();
        passTime(limit);
        errno = EAGAIN;
        return -1;
    }
}

}  // namespace

void Waits::setPeer(Peer* peer) {
    currentPeer = peer;
}

extern "C" {

ssize_t __wrap_recv(int fd, void* buffer, size_t length, int flags) {
    return receive(fd, flags, [&](int all) { return __real_recv(fd, buffer, length, all); });
}

ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags) {
    return receive(fd, flags, [&](int all) { return __real_recvmsg(fd, message, all); });
}

int __wrap_ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* signals) {
    if (currentPeer == nullptr) return __real_ppoll(descriptors, count, timeout, signals);
    for (;;) {
        const timespec none{};
        const int ready = __real_ppoll(descriptors, count, &none, signals);
        if (ready != 0) return ready;
        if (currentPeer->act()) continue;
        if (timeout == nullptr) std::abort();
        passTime(seconds(timeout->tv_sec) + nanoseconds(timeout->tv_nsec));
        return 0;
    }
}

}  // extern "C"

std::chrono::steady_clock::time_point movedNow() {
    return realNow() + moved;
}
// NOLINTEND(bugprone-reserved-identifier)
