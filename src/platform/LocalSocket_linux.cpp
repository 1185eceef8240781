#include "platform/LocalSocket_linux.h"

#include "platform/Interruption_linux.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Quovane::Internal::Qvtp::LocalSocket {

namespace {

constexpr int SEND_BUFFER_SIZE = 212992;

bool fillAddress(const std::string& path, sockaddr_un& address) {
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

/// `limit` in microseconds, rounded up: a remainder that rounds to 0 would mean for ever.
bool setTimeout(int fd, int option, std::chrono::nanoseconds limit) {
    const auto microseconds = std::max<std::int64_t>((limit.count() + 999) / 1000, 1);
    timeval value{};
    value.tv_sec = static_cast<time_t>(microseconds / 1000000);
    value.tv_usec = static_cast<suseconds_t>(microseconds % 1000000);
    return ::setsockopt(fd, SOL_SOCKET, option, &value, sizeof value) == 0;
}

int pollOnce(pollfd* descriptors, nfds_t count, const Deadline& deadline) {
    if (deadline.isUnlimited()) return ::ppoll(descriptors, count, nullptr, nullptr);
    const std::int64_t left = deadline.left().count();
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(left / 1000000000);
    timeout.tv_nsec = static_cast<long>(left % 1000000000);
    return ::ppoll(descriptors, count, &timeout, nullptr);
}

}  // namespace

Descriptor create() {
    return Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool makeBlocking(int fd) {
    // A socket of its own has no other flag that could be changed.
    return uninterrupted([&] { return ::fcntl(fd, F_SETFL, 0); }) == 0;
}

bool setReceiveTimeout(int fd, std::chrono::nanoseconds limit) {
    return setTimeout(fd, SO_RCVTIMEO, limit);
}

void reserveSendBuffer(int fd) {
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER_SIZE, sizeof SEND_BUFFER_SIZE);
}

int unreadMemory(int fd) {
    int memory = -1;
    return ::ioctl(fd, SIOCOUTQ, &memory) == 0 ? memory : -1;
}

bool bind(int fd, const std::string& path) {
    sockaddr_un address{};
    return fillAddress(path, address) && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool connect(int fd, const std::string& path) {
    sockaddr_un address{};
    if (!fillAddress(path, address)) return false;
    return uninterrupted([&] { return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address); }) ==
           0;
}

QueueResult connectBefore(int fd, const std::string& path, const Deadline& deadline) {
    sockaddr_un address{};
    if (!fillAddress(path, address) || !makeBlocking(fd)) return QueueResult::FAILED;
    int result = -1;
    int error = EINTR;
    while (result != 0 && error == EINTR) {
        if (!deadline.isUnlimited() && !setTimeout(fd, SO_SNDTIMEO, deadline.left())) return QueueResult::FAILED;
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        error = result == 0 ? 0 : errno;
        if (error == EINTR && deadline.isOver()) error = EAGAIN;
    }
    // Writing asks not to wait each time, so it does no harm if this fails.
    const timeval unlimited{};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &unlimited, sizeof unlimited);
    return result == 0 ? QueueResult::CONNECTED : QueueResult::NOT_CONNECTED;
}

WaitResult wait(int fd, short events, int event, const Deadline& deadline, int watch) {
    for (;;) {
        pollfd descriptors[] = {{event, POLLIN, 0}, {fd, events, 0}, {watch, POLLIN, 0}};  // -1 is taken no notice of
        const int ready = pollOnce(descriptors, 3, deadline);
        if (ready > 0 && descriptors[0].revents != 0) return WaitResult::SIGNALLED;
        if (ready > 0) return descriptors[1].revents != 0 ? WaitResult::READY : WaitResult::NOTICED;
        if (deadline.isOver()) return WaitResult::TIMED_OUT;
        if (ready < 0 && errno != EINTR) return WaitResult::FAILED;
    }
}

}  // namespace Quovane::Internal::Qvtp::LocalSocket
