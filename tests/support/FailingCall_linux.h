#pragma once

#include <cstddef>

namespace qvtp_test {

/// While it lives, calls of the system that the calling thread makes fail: `times` of them, after the first `after` of
/// their kind. Other threads are not affected. One at a time on each thread. One that never happens proves that there
/// was no such call.
///
/// A program that uses it links the CMake target qvtp_test_calls, which puts itself before the functions of the C
/// library.
class CallFailure {
  public:
    enum class Call {
        ACCEPT,
        CONNECT,
        EVENTFD,
        FCNTL,
        FSTAT,  // and fstatat
        FTRUNCATE,
        GETPID,
        GETSOCKOPT,
        INOTIFY,
        IOCTL,
        LISTEN,
        OPEN,
        POLL,
        PREAD,
        PWRITE,
        RECEIVE,
        RENAME,
        SEND,
        SETSOCKOPT,
        SOCKET,
        WRITE
    };

    CallFailure(Call call, int error, int times = 1, int after = 0);
    ~CallFailure();
    CallFailure(const CallFailure&) = delete;
    CallFailure& operator=(const CallFailure&) = delete;

    /// Whether one has failed: a loop over `after` ends when none has.
    bool hasHappened() const;
};

/// While it lives, what the calling thread sends is cut after so many bytes in all, and the send after that fails. Only
/// that one: what is sent later goes its way.
class SendCut {
  public:
    SendCut(std::size_t bytes, int error);
    ~SendCut();
    SendCut(const SendCut&) = delete;
    SendCut& operator=(const SendCut&) = delete;

    /// Whether the send has failed.
    bool hasHappened() const;
};

}  // namespace qvtp_test
