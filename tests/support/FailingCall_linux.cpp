// The functions are defined under both of their names, the one for small files and the one for large ones.
#undef _FILE_OFFSET_BITS
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include "support/FailingCall_linux.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvtp_test {

namespace {

using Call = CallFailure::Call;

/// Plain data, so that it needs no call itself.
struct Plan {
    bool active;
    bool happened;
    Call call;
    int error;
    int times;
    int after;
};
thread_local Plan plan{};
std::atomic<int> failures{0};

bool isToFail(Call call) {
    if (!plan.active || plan.call != call) return false;
    if (plan.after > 0) {
        --plan.after;
        return false;
    }
    if (plan.times == 0) return false;
    --plan.times;
    plan.happened = true;
    ++failures;
    errno = plan.error;
    return true;
}

struct Cut {
    bool active;
    bool happened;
    std::size_t left;
    int error;
};
thread_local Cut cut{};

/// How much of a send may leave; nothing if it fails.
bool limitSend(std::size_t& size) {
    if (!cut.active || cut.happened || size == 0) return true;
    if (cut.left == 0) {
        cut.happened = true;
        errno = cut.error;
        return false;
    }
    size = std::min(size, cut.left);
    return true;
}

ssize_t countSent(ssize_t count) {
    if (cut.active && !cut.happened && count > 0) cut.left -= static_cast<std::size_t>(count);
    return count;
}

struct Removal {
    const char* ending;
    SlowRemoval::Look look;
};
thread_local Removal removal{};

bool isRemoved(SlowRemoval::Look look, std::string_view path) {
    if (removal.ending == nullptr || removal.look != look) return false;
    const std::string_view ending = removal.ending;
    if (path.size() < ending.size() || path.substr(path.size() - ending.size()) != ending) return false;
    removal.ending = nullptr;
    return true;
}

template <typename Status>
int lookAtName(int result, int directory, const char* path, Status* status) {
    if (result != 0 || !isRemoved(SlowRemoval::Look::AT_NAME, path)) return result;
    status->st_nlink = 0;
    return ::unlinkat(directory, path, 0);
}

template <typename Status>
int lookAtOpenFile(int result, int fd, Status* status) {
    if (result != 0 || removal.ending == nullptr) return result;
    char path[4096];
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1);
    if (length <= 0) return result;
    path[length] = '\0';
    if (!isRemoved(SlowRemoval::Look::AT_OPEN_FILE, path)) return result;
    status->st_nlink = 0;
    return ::unlink(path);
}
thread_local WaitHold* hold = nullptr;  // not owned
thread_local WaitHold* signalHold = nullptr;

/// The function that this one hides.
template <typename Function>
Function hidden(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

CallFailure::CallFailure(Call call, int error, int times, int after) {
    plan = Plan{true, false, call, error, times, after};
}

CallFailure::~CallFailure() {
    plan.active = false;
}

int CallFailure::total() {
    return failures;
}

bool CallFailure::hasHappened() const {
    return plan.happened;
}

SlowRemoval::SlowRemoval(const char* ending, Look look) {
    removal = {ending, look};
}

SlowRemoval::~SlowRemoval() {
    removal = {};
}

SendCut::SendCut(std::size_t bytes, int error) {
    cut = Cut{true, false, bytes, error};
}

SendCut::~SendCut() {
    cut.active = false;
}

bool SendCut::hasHappened() const {
    return cut.happened;
}

void WaitHold::arm() {
    hold = this;
}

void WaitHold::armSignal() {
    signalHold = this;
}

void WaitHold::letGo() {
    const std::lock_guard<std::mutex> guard(mutex_);
    isLetGo_ = true;
    changed_.notify_all();
}

void WaitHold::end() {
    ended_ = true;
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return isLetGo_; });
}

}  // namespace qvtp_test

using qvtp_test::Call;
using qvtp_test::countSent;
using qvtp_test::hidden;
using qvtp_test::hold;
using qvtp_test::isToFail;
using qvtp_test::limitSend;
using qvtp_test::lookAtName;
using qvtp_test::lookAtOpenFile;
using qvtp_test::signalHold;
using qvtp_test::WaitHold;

namespace {

using Open = int (*)(const char*, int, ...);
using OpenAt = int (*)(int, const char*, int, ...);
using Fcntl = int (*)(int, int, ...);

int openBy(Open open, const char* path, int flags, mode_t mode) {
    return isToFail(Call::OPEN) ? -1 : open(path, flags, mode);
}

int openBy(OpenAt open, int directory, const char* path, int flags, mode_t mode) {
    return isToFail(Call::OPEN) ? -1 : open(directory, path, flags, mode);
}

mode_t modeOf(int flags, va_list& arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    static const auto real = hidden<Open>("open");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openBy(real, path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    static const auto real = hidden<Open>("open64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openBy(real, path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    static const auto real = hidden<OpenAt>("openat");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openBy(real, directory, path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...) {
    static const auto real = hidden<OpenAt>("openat64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openBy(real, directory, path, flags, mode);
}

// Every argument fits into a pointer.

int fcntl(int fd, int command, ...) {
    static const auto real = hidden<Fcntl>("fcntl");
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return isToFail(Call::FCNTL) ? -1 : real(fd, command, argument);
}

int fcntl64(int fd, int command, ...) {
    static const auto real = hidden<Fcntl>("fcntl64");
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return isToFail(Call::FCNTL) ? -1 : real(fd, command, argument);
}

int ftruncate(int fd, off_t length) noexcept {
    static const auto real = hidden<int (*)(int, off_t)>("ftruncate");
    return isToFail(Call::FTRUNCATE) ? -1 : real(fd, length);
}

int ftruncate64(int fd, off64_t length) noexcept {
    static const auto real = hidden<int (*)(int, off64_t)>("ftruncate64");
    return isToFail(Call::FTRUNCATE) ? -1 : real(fd, length);
}

ssize_t pread(int fd, void* data, size_t size, off_t offset) {
    static const auto real = hidden<ssize_t (*)(int, void*, size_t, off_t)>("pread");
    return isToFail(Call::PREAD) ? -1 : real(fd, data, size, offset);
}

ssize_t pread64(int fd, void* data, size_t size, off64_t offset) {
    static const auto real = hidden<ssize_t (*)(int, void*, size_t, off64_t)>("pread64");
    return isToFail(Call::PREAD) ? -1 : real(fd, data, size, offset);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    static const auto real = hidden<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
    return isToFail(Call::PWRITE) ? -1 : real(fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
    static const auto real = hidden<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
    return isToFail(Call::PWRITE) ? -1 : real(fd, data, size, offset);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static const auto real = hidden<int (*)(int, sockaddr*, socklen_t*, int)>("accept4");
    return isToFail(Call::ACCEPT) ? -1 : real(fd, address, length, flags);
}

ssize_t send(int fd, const void* data, size_t size, int flags) {
    static const auto real = hidden<ssize_t (*)(int, const void*, size_t, int)>("send");
    if (isToFail(Call::SEND) || !limitSend(size)) return -1;
    return countSent(real(fd, data, size, flags));
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    static const auto real = hidden<ssize_t (*)(int, const msghdr*, int)>("sendmsg");
    if (isToFail(Call::SEND)) return -1;
    std::size_t size = 0;
    for (std::size_t i = 0; i < message->msg_iovlen; ++i) size += message->msg_iov[i].iov_len;
    if (!limitSend(size)) return -1;
    std::vector<iovec> blocks(message->msg_iov, message->msg_iov + message->msg_iovlen);
    for (iovec& block : blocks) size -= block.iov_len = std::min(block.iov_len, size);
    msghdr limited = *message;
    limited.msg_iov = blocks.data();
    return countSent(real(fd, &limited, flags));
}

ssize_t write(int fd, const void* data, size_t size) {
    static const auto real = hidden<ssize_t (*)(int, const void*, size_t)>("write");
    if (WaitHold* const holder = std::exchange(signalHold, nullptr)) {
        holder->begin();
        holder->end();
    }
    return isToFail(Call::WRITE) ? -1 : real(fd, data, size);
}

int listen(int fd, int backlog) noexcept {
    static const auto real = hidden<int (*)(int, int)>("listen");
    return isToFail(Call::LISTEN) ? -1 : real(fd, backlog);
}

int inotify_init1(int flags) noexcept {
    static const auto real = hidden<int (*)(int)>("inotify_init1");
    return isToFail(Call::INOTIFY) ? -1 : real(flags);
}

pid_t getpid() noexcept {
    static const auto real = hidden<pid_t (*)()>("getpid");
    return isToFail(Call::GETPID) ? -1 : real();
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
    static const auto real = hidden<int (*)(int, int, int, const void*, socklen_t)>("setsockopt");
    return isToFail(Call::SETSOCKOPT) ? -1 : real(fd, level, option, value, length);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
    static const auto real = hidden<int (*)(int, const sockaddr*, socklen_t)>("connect");
    return isToFail(Call::CONNECT) ? -1 : real(fd, address, length);
}

int eventfd(unsigned count, int flags) noexcept {
    static const auto real = hidden<int (*)(unsigned, int)>("eventfd");
    return isToFail(Call::EVENTFD) ? -1 : real(count, flags);
}

int fstat(int fd, struct stat* status) noexcept {
    static const auto real = hidden<int (*)(int, struct stat*)>("fstat");
    return isToFail(Call::FSTAT) ? -1 : lookAtOpenFile(real(fd, status), fd, status);
}

int fstat64(int fd, struct stat64* status) noexcept {
    static const auto real = hidden<int (*)(int, struct stat64*)>("fstat64");
    return isToFail(Call::FSTAT) ? -1 : lookAtOpenFile(real(fd, status), fd, status);
}

int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
    static const auto real = hidden<int (*)(int, const char*, struct stat*, int)>("fstatat");
    return isToFail(Call::FSTAT) ? -1 : lookAtName(real(directory, path, status, flags), directory, path, status);
}

int fstatat64(int directory, const char* path, struct stat64* status, int flags) noexcept {
    static const auto real = hidden<int (*)(int, const char*, struct stat64*, int)>("fstatat64");
    return isToFail(Call::FSTAT) ? -1 : lookAtName(real(directory, path, status, flags), directory, path, status);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
    static const auto real = hidden<int (*)(int, int, int, void*, socklen_t*)>("getsockopt");
    return isToFail(Call::GETSOCKOPT) ? -1 : real(fd, level, option, value, length);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    static const auto real = hidden<int (*)(int, unsigned long, ...)>("ioctl");
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return isToFail(Call::IOCTL) ? -1 : real(fd, request, argument);
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
    static const auto real = hidden<int (*)(pollfd*, nfds_t, int)>("poll");
    return isToFail(Call::POLL) ? -1 : real(descriptors, count, timeout);
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* signals) {
    static const auto real = hidden<int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*)>("ppoll");
    if (isToFail(Call::POLL)) return -1;
    WaitHold* const holder = std::exchange(hold, nullptr);
    if (holder == nullptr) return real(descriptors, count, timeout, signals);
    holder->begin();
    const int result = real(descriptors, count, timeout, signals);
    const int error = errno;
    holder->end();
    errno = error;
    return result;
}

ssize_t recv(int fd, void* data, size_t size, int flags) {
    static const auto real = hidden<ssize_t (*)(int, void*, size_t, int)>("recv");
    return isToFail(Call::RECEIVE) ? -1 : real(fd, data, size, flags);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
    static const auto real = hidden<ssize_t (*)(int, msghdr*, int)>("recvmsg");
    return isToFail(Call::RECEIVE) ? -1 : real(fd, message, flags);
}

int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept {
    static const auto real = hidden<int (*)(int, const char*, int, const char*)>("renameat");
    return isToFail(Call::RENAME) ? -1 : real(fromDirectory, from, toDirectory, to);
}

int socket(int domain, int type, int protocol) noexcept {
    static const auto real = hidden<int (*)(int, int, int)>("socket");
    return isToFail(Call::SOCKET) ? -1 : real(domain, type, protocol);
}

}  // extern "C"

namespace {

/// Each of them looks for the function that it hides at its first call, under a lock that a forked child must not
/// inherit from another thread. So each is called before there are threads, with what it refuses.
const struct FirstCalls {
    FirstCalls() {
        pollfd* const none = nullptr;
        const timespec now{};
        struct stat status {};
        struct stat64 largeStatus {};
        msghdr message{};
        char byte = 0;
        const long results[] = {::accept4(-1, nullptr, nullptr, 0),
                                ::connect(-1, nullptr, 0),
                                ::close(::eventfd(0, 0)),
                                ::fcntl(-1, F_GETFD, nullptr),
                                ::fcntl64(-1, F_GETFD, nullptr),
                                ::fstat(-1, &status),
                                ::fstat64(-1, &largeStatus),
                                ::fstatat(-1, "", &status, 0),
                                ::fstatat64(-1, "", &largeStatus, 0),
                                ::ftruncate(-1, 0),
                                ::ftruncate64(-1, 0),
                                ::getpid(),
                                ::getsockopt(-1, 0, 0, nullptr, nullptr),
                                ::close(::inotify_init1(0)),
                                ::ioctl(-1, 0, nullptr),
                                ::listen(-1, 0),
                                ::open("", O_RDONLY),
                                ::open64("", O_RDONLY),
                                ::openat(-1, "", O_RDONLY),
                                ::openat64(-1, "", O_RDONLY),
                                ::poll(none, 0, 0),
                                ::ppoll(none, 0, &now, nullptr),
                                ::pread(-1, &byte, 1, 0),
                                ::pread64(-1, &byte, 1, 0),
                                ::pwrite(-1, &byte, 1, 0),
                                ::pwrite64(-1, &byte, 1, 0),
                                ::recv(-1, &byte, 1, 0),
                                ::recvmsg(-1, &message, 0),
                                ::renameat(-1, "", -1, ""),
                                ::send(-1, &byte, 1, 0),
                                ::sendmsg(-1, &message, 0),
                                ::setsockopt(-1, 0, 0, nullptr, 0),
                                ::socket(-1, 0, 0),
                                ::write(-1, &byte, 1)};
        static_cast<void>(results);
    }
} firstCalls;

}  // namespace
