// The functions are defined under both of their names, the one for small files and the one for large ones.
#undef _FILE_OFFSET_BITS
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include "faults/FaultPlan_linux.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace {

using qvtp_test::faults::hidden;
using qvtp_test::faults::Kind;
using qvtp_test::faults::limited;
using qvtp_test::faults::mustFail;
using qvtp_test::faults::mustInterrupt;
using qvtp_test::faults::variant;

constexpr std::size_t ERRORS = 3;
using Errors = int[ERRORS];

// What each can meet on a machine in trouble, three of each.
constexpr Errors OF_DESCRIPTORS = {EMFILE, ENFILE, ENOMEM};
constexpr Errors OF_FILES = {EMFILE, ENOMEM, EACCES};
constexpr Errors OF_CONNECT = {ECONNREFUSED, ENOMEM, EACCES};
constexpr Errors OF_ACCEPT = {EMFILE, ENFILE, ENOBUFS};
constexpr Errors OF_ADDRESSES = {ENOSPC, EADDRINUSE, EROFS};
constexpr Errors OF_SENDING = {EPIPE, ENOBUFS, ECONNRESET};
constexpr Errors OF_RECEIVING = {ECONNRESET, ENOMEM, EIO};
constexpr Errors OF_WAITING = {ENOMEM, EINVAL, EFAULT};
constexpr Errors OF_LOCKS = {ENOLCK, EAGAIN, EIO};
constexpr Errors OF_ASKING = {ENOMEM, EINVAL, EIO};
constexpr Errors OF_DISKS = {ENOSPC, EIO, EROFS};
constexpr Errors OF_LOOKING = {EACCES, EIO, ENOMEM};
constexpr Errors OF_MEMORY = {ENOMEM, EAGAIN, EINVAL};

bool fails(const char* function, const Errors& errors) {
    if (!mustFail(Kind::CALL, function)) return false;
    errno = errors[static_cast<std::size_t>(variant()) % ERRORS];
    return true;
}

bool failsOrIsInterrupted(const char* function, const Errors& errors) {
    if (fails(function, errors)) return true;
    if (!mustInterrupt()) return false;
    errno = EINTR;
    return true;
}

mode_t modeOf(int flags, va_list& arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

/// The blocks of a message, as few bytes of them as may be moved.
class ShortMessage {
  public:
    explicit ShortMessage(const msghdr& message) : message_(message) {
        std::size_t size = 0;
        for (std::size_t i = 0; i < message.msg_iovlen; ++i) size += message.msg_iov[i].iov_len;
        std::size_t left = limited(size);
        if (left == size) return;
        const iovec* block = message.msg_iov;
        while (block->iov_len == 0) ++block;
        first_ = {block->iov_base, left};
        message_.msg_iov = &first_;
        message_.msg_iovlen = 1;
    }
    ShortMessage(const ShortMessage&) = delete;
    ShortMessage& operator=(const ShortMessage&) = delete;
    msghdr* get() { return &message_; }

  private:
    msghdr message_;
    iovec first_{};
};

}  // namespace

// Closing, waking and unlocking are not let fail: close() and shutdown() free what they are given whatever they return,
// and a write to an event of the kernel fails only when the event is signalled already.

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    static const auto real = hidden<int (*)(int, int, int)>("socket");
    return fails("socket", OF_DESCRIPTORS) ? -1 : real(domain, type, protocol);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
    static const auto real = hidden<int (*)(int, const sockaddr*, socklen_t)>("connect");
    return failsOrIsInterrupted("connect", OF_CONNECT) ? -1 : real(fd, address, length);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static const auto real = hidden<int (*)(int, sockaddr*, socklen_t*, int)>("accept4");
    return failsOrIsInterrupted("accept4", OF_ACCEPT) ? -1 : real(fd, address, length, flags);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    static const auto real = hidden<int (*)(int, const sockaddr*, socklen_t)>("bind");
    return fails("bind", OF_ADDRESSES) ? -1 : real(fd, address, length);
}

int listen(int fd, int backlog) noexcept {
    static const auto real = hidden<int (*)(int, int)>("listen");
    return fails("listen", OF_DESCRIPTORS) ? -1 : real(fd, backlog);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
    static const auto real = hidden<int (*)(int, int, int, const void*, socklen_t)>("setsockopt");
    return fails("setsockopt", OF_MEMORY) ? -1 : real(fd, level, option, value, length);
}

ssize_t send(int fd, const void* data, std::size_t size, int flags) {
    static const auto real = hidden<ssize_t (*)(int, const void*, std::size_t, int)>("send");
    return failsOrIsInterrupted("send", OF_SENDING) ? -1 : real(fd, data, limited(size), flags);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    static const auto real = hidden<ssize_t (*)(int, const msghdr*, int)>("sendmsg");
    if (failsOrIsInterrupted("sendmsg", OF_SENDING)) return -1;
    return real(fd, ShortMessage(*message).get(), flags);
}

ssize_t recv(int fd, void* data, std::size_t size, int flags) {
    static const auto real = hidden<ssize_t (*)(int, void*, std::size_t, int)>("recv");
    return failsOrIsInterrupted("recv", OF_RECEIVING) ? -1 : real(fd, data, limited(size), flags);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
    static const auto real = hidden<ssize_t (*)(int, msghdr*, int)>("recvmsg");
    if (failsOrIsInterrupted("recvmsg", OF_RECEIVING)) return -1;
    ShortMessage shortened(*message);
    const ssize_t count = real(fd, shortened.get(), flags);
    message->msg_flags = shortened.get()->msg_flags;
    message->msg_controllen = shortened.get()->msg_controllen;
    return count;
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
    static const auto real = hidden<int (*)(pollfd*, nfds_t, int)>("poll");
    return failsOrIsInterrupted("poll", OF_WAITING) ? -1 : real(descriptors, count, timeout);
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* signals) {
    static const auto real = hidden<int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*)>("ppoll");
    return failsOrIsInterrupted("ppoll", OF_WAITING) ? -1 : real(descriptors, count, timeout, signals);
}

int eventfd(unsigned value, int flags) noexcept {
    static const auto real = hidden<int (*)(unsigned, int)>("eventfd");
    return fails("eventfd", OF_DESCRIPTORS) ? -1 : real(value, flags);
}

int inotify_init1(int flags) noexcept {
    static const auto real = hidden<int (*)(int)>("inotify_init1");
    return fails("inotify_init1", OF_DESCRIPTORS) ? -1 : real(flags);
}

int inotify_add_watch(int fd, const char* path, std::uint32_t changes) noexcept {
    static const auto real = hidden<int (*)(int, const char*, std::uint32_t)>("inotify_add_watch");
    return fails("inotify_add_watch", OF_ADDRESSES) ? -1 : real(fd, path, changes);
}

int open64(const char* path, int flags, ...) {
    static const auto real = hidden<int (*)(const char*, int, ...)>("open64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return failsOrIsInterrupted("open", OF_FILES) ? -1 : real(path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...) {
    static const auto real = hidden<int (*)(int, const char*, int, ...)>("openat64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return failsOrIsInterrupted("openat", OF_FILES) ? -1 : real(directory, path, flags, mode);
}

int fcntl64(int fd, int command, ...) {
    static const auto real = hidden<int (*)(int, int, ...)>("fcntl64");
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);  // every argument fits into a pointer
    va_end(arguments);
    const bool unlocks = command == F_OFD_SETLK && static_cast<struct flock*>(argument)->l_type == F_UNLCK;
    const Errors& errors = command == F_OFD_SETLK ? OF_LOCKS : OF_ASKING;
    if (!unlocks && failsOrIsInterrupted("fcntl", errors)) return -1;
    return real(fd, command, argument);
}

int ftruncate64(int fd, off64_t length) noexcept {
    static const auto real = hidden<int (*)(int, off64_t)>("ftruncate64");
    return failsOrIsInterrupted("ftruncate", OF_DISKS) ? -1 : real(fd, length);
}

ssize_t pread64(int fd, void* data, std::size_t size, off64_t offset) {
    static const auto real = hidden<ssize_t (*)(int, void*, std::size_t, off64_t)>("pread64");
    return failsOrIsInterrupted("pread", OF_LOOKING) ? -1 : real(fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void* data, std::size_t size, off64_t offset) {
    static const auto real = hidden<ssize_t (*)(int, const void*, std::size_t, off64_t)>("pwrite64");
    return failsOrIsInterrupted("pwrite", OF_DISKS) ? -1 : real(fd, data, size, offset);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    static const auto real = hidden<int (*)(int, unsigned long, ...)>("ioctl");
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);  // every argument fits into a pointer
    va_end(arguments);
    return fails("ioctl", OF_LOOKING) ? -1 : real(fd, request, argument);
}

int mkdir(const char* path, mode_t mode) noexcept {
    static const auto real = hidden<int (*)(const char*, mode_t)>("mkdir");
    return fails("mkdir", OF_DISKS) ? -1 : real(path, mode);
}

int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept {
    static const auto real = hidden<int (*)(int, const char*, int, const char*)>("renameat");
    return fails("renameat", OF_DISKS) ? -1 : real(fromDirectory, from, toDirectory, to);
}

int unlinkat(int directory, const char* path, int flags) noexcept {
    static const auto real = hidden<int (*)(int, const char*, int)>("unlinkat");
    return fails("unlinkat", OF_LOOKING) ? -1 : real(directory, path, flags);
}

int stat64(const char* path, struct stat64* status) noexcept {
    static const auto real = hidden<int (*)(const char*, struct stat64*)>("stat64");
    return fails("stat", OF_LOOKING) ? -1 : real(path, status);
}

int lstat64(const char* path, struct stat64* status) noexcept {
    static const auto real = hidden<int (*)(const char*, struct stat64*)>("lstat64");
    return fails("lstat", OF_LOOKING) ? -1 : real(path, status);
}

int fstat64(int fd, struct stat64* status) noexcept {
    static const auto real = hidden<int (*)(int, struct stat64*)>("fstat64");
    return fails("fstat", OF_LOOKING) ? -1 : real(fd, status);
}

int fstatat64(int directory, const char* path, struct stat64* status, int flags) noexcept {
    static const auto real = hidden<int (*)(int, const char*, struct stat64*, int)>("fstatat64");
    return fails("fstatat", OF_LOOKING) ? -1 : real(directory, path, status, flags);
}

void* mmap64(void* address, std::size_t length, int protection, int flags, int fd, off64_t offset) noexcept {
    static const auto real = hidden<void* (*)(void*, std::size_t, int, int, int, off64_t)>("mmap64");
    return fails("mmap", OF_MEMORY) ? MAP_FAILED : real(address, length, protection, flags, fd, offset);
}

int madvise(void* address, std::size_t length, int advice) noexcept {
    static const auto real = hidden<int (*)(void*, std::size_t, int)>("madvise");
    return fails("madvise", OF_MEMORY) ? -1 : real(address, length, advice);
}

int sched_getaffinity(pid_t process, std::size_t size, cpu_set_t* processors) noexcept {
    static const auto real = hidden<int (*)(pid_t, std::size_t, cpu_set_t*)>("sched_getaffinity");
    return fails("sched_getaffinity", OF_MEMORY) ? -1 : real(process, size, processors);
}

int nanosleep(const timespec* time, timespec* left) {
    static const auto real = hidden<int (*)(const timespec*, timespec*)>("nanosleep");
    if (!mustInterrupt()) return real(time, left);
    if (left != nullptr) *left = *time;
    errno = EINTR;
    return -1;
}

FILE* fopen64(const char* path, const char* mode) {
    static const auto real = hidden<FILE* (*)(const char*, const char*)>("fopen64");
    return fails("fopen", OF_FILES) ? nullptr : real(path, mode);
}

std::size_t fwrite(const void* data, std::size_t size, std::size_t count, FILE* file) {
    static const auto real = hidden<std::size_t (*)(const void*, std::size_t, std::size_t, FILE*)>("fwrite");
    return fails("fwrite", OF_DISKS) ? 0 : real(data, size, count, file);
}

int fflush(FILE* file) {
    static const auto real = hidden<int (*)(FILE*)>("fflush");
    return fails("fflush", OF_DISKS) ? EOF : real(file);
}

}  // extern "C"
