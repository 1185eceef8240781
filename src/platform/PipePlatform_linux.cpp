#include "platform/PipePlatform.h"

#include "common/System.h"
#include "platform/LocalSocket_linux.h"
#include "platform/PipeConnector_linux.h"
#include "platform/PipeLog.h"
#include "platform/PipeObject_linux.h"
#include "platform/SystemError_linux.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

using LocalSocket::WaitResult;
using ObjectPtr = std::shared_ptr<PipeObject>;

// A write that waits looks so often in its time-out whether the peer has taken something.
constexpr int LOOKS = 100;

// A message of this size becomes one buffer of the kernel, which its reader gets as a whole or not at all.
constexpr std::size_t WHOLE_SIZE = 32768;

/// Whether an operation in one direction can start at all: 0 or the number of a SystemError.
int accessError(const ObjectPtr& object, bool PipeObject::*access) {
    if (object == nullptr) return SystemError::INVALID_HANDLE;
    if (!object->connected) return SystemError::PIPE_LISTENING;
    return (*object).*access ? SystemError::NONE : SystemError::ACCESS_DENIED;
}

/// One try to read, without waiting: the count, 0 at the end (also when the peer left data of ours unread), -1 with
/// errno. With length 0 it only looks whether there is anything.
ssize_t receive(int fd, char* buffer, std::size_t length) {
    char probe = 0;
    for (;;) {
        const ssize_t count =
            length > 0 ? ::recv(fd, buffer, length, MSG_DONTWAIT) : ::recv(fd, &probe, 1, MSG_DONTWAIT | MSG_PEEK);
        if (count >= 0) return count;
        if (errno == ECONNRESET) return 0;
        if (errno != EINTR) return -1;
    }
}

bool wouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

int readCount(ssize_t count, std::size_t length) {
    return length > 0 ? static_cast<int>(count) : 0;
}

int reportReadError(int error) {
    PipeLog::readRefused(error);
    return ReadResult::FAILED;
}

/// The part of a read that waits.
int readPending(const PipeObject& object, char* buffer, std::size_t length, int timeoutMs) {
    const Deadline deadline = Deadline::after(timeoutMs);
    for (;;) {
        const WaitResult waited = LocalSocket::wait(object.socket.get(), POLLIN, object.event.get(), deadline);
        if (object.closed) return ReadResult::ABORTED;
        if (waited == WaitResult::TIMED_OUT) {
            PipeLog::readTimedOut();
            return ReadResult::TIMED_OUT;
        }
        if (waited != WaitResult::READY) return 0;
        const ssize_t count = receive(object.socket.get(), buffer, length);
        const int error = errno;
        if (object.closed && count <= 0) return ReadResult::ABORTED;
        if (count >= 0) return readCount(count, length);
        if (error != EAGAIN && error != EWOULDBLOCK) {
            PipeLog::readFailed(SystemError::fromErrno(error));
            return ReadResult::FAILED;
        }
    }
}

/// One wait for input. Another thread may end it through platformWake.
class InputWait {
  public:
    explicit InputWait(PipeObject& object) : object_(object) {}
    ~InputWait() { end(); }
    InputWait(const InputWait&) = delete;
    InputWait& operator=(const InputWait&) = delete;

    int run(int timeoutMs) {
        if (!begin()) return InputResult::WOKEN;
        const Deadline deadline = Deadline::after(timeoutMs);
        for (bool waited = false;; waited = true) {
            const ssize_t count = receive(object_.socket.get(), nullptr, 0);
            const bool mustWait = count < 0 && wouldBlock();
            if (object_.closed) return InputResult::ABORTED;
            if (count == 0) object_.endAwaited = waited;
            if (!mustWait) return InputResult::INPUT;
            switch (LocalSocket::wait(object_.socket.get(), POLLIN, object_.event.get(), deadline)) {
                case WaitResult::TIMED_OUT:
                    return InputResult::TIMED_OUT;
                case WaitResult::SIGNALLED:
                    return object_.closed ? InputResult::ABORTED : InputResult::WOKEN;
                case WaitResult::FAILED:
                    return InputResult::INPUT;  // the read reports why
                case WaitResult::READY:
                    break;
            }
        }
    }

  private:
    /// False if it was woken before it began.
    bool begin() {
        const std::lock_guard<std::mutex> guard(object_.wakeMutex);
        if (std::exchange(object_.woken, false)) return false;
        object_.awaitingInput = true;
        return true;
    }

    void end() {
        const std::lock_guard<std::mutex> guard(object_.wakeMutex);
        if (!std::exchange(object_.awaitingInput, false) || !std::exchange(object_.woken, false)) return;
        object_.event.unsignal();
        if (object_.closed) object_.event.signal();  // that may have been taken back as well
    }

    PipeObject& object_;
};

bool isBrokenPipe(int error) {
    return error == EPIPE || error == ECONNRESET;
}

/// One write of two blocks, in as many steps as the kernel takes it.
class PendingWrite {
  public:
    PendingWrite(PipeObject& object, const char* first, std::size_t firstLength, const char* second = nullptr,
                 std::size_t secondLength = 0)
        : object_(object),
          blocks_{{const_cast<char*>(first), firstLength}, {const_cast<char*>(second), secondLength}},
          deadline_(Deadline::after(object.writeTimeoutMs)) {}

    int run() {
        int result = WriteResult::WRITTEN;
        while (left() > 0 && result == WriteResult::WRITTEN) result = writeSome(0);
        return result;
    }

    /// Ends after the first progress. Up to `wholeSize` bytes leave in one piece or not at all.
    int writeSome(std::size_t wholeSize) {
        for (;;) {
            const bool isSmall = left() <= std::max(wholeSize, ReaderPace::PIECE);
            const ssize_t count = send(isSmall ? left() : object_.pace.limit());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && !wouldBlock()) return fail(errno);
            if (count > 0) {
                advance(static_cast<std::size_t>(count));
                return WriteResult::WRITTEN;
            }
            if (!await()) return outcome_;
        }
    }

    std::size_t left() const { return blocks_[0].iov_len + blocks_[1].iov_len; }

  private:
    ssize_t send(std::size_t limit) const {
        iovec blocks[] = {blocks_[0], blocks_[1]};
        blocks[0].iov_len = std::min(blocks[0].iov_len, limit);
        blocks[1].iov_len = std::min(blocks[1].iov_len, limit - blocks[0].iov_len);
        msghdr message{};
        message.msg_iov = blocks;
        message.msg_iovlen = 2;
        return ::sendmsg(object_.socket.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    /// Progress restarts the clock, so that a slow but steady reader has as much time for a large block as for the same
    /// bytes in pieces. Less than a piece in a whole time-out is no progress.
    void advance(std::size_t count) {
        pending_ = true;  // begun: what ends it now is no longer an immediate failure
        unread_ = -1;
        progress_ += count;
        object_.pace.sent(object_.socket.get(), count);
        for (iovec& block : blocks_) {
            const std::size_t taken = std::min(count, block.iov_len);
            block.iov_base = static_cast<char*>(block.iov_base) + taken;
            block.iov_len -= taken;
            count -= taken;
        }
        if (progress_ < ReaderPace::PIECE) return;
        progress_ = 0;
        deadline_ = Deadline::after(object_.writeTimeoutMs);
    }

    /// Waits for room, but only for a moment: the socket counts as writable when three quarters of its memory are free,
    /// a send succeeds as soon as any is. False when the write has ended.
    bool await() {
        pending_ = true;
        if (unread_ < 0) unread_ = LocalSocket::unreadMemory(object_.socket.get());
        const Deadline moment = Deadline::after(std::max(object_.writeTimeoutMs / LOOKS, 1));
        const WaitResult waited = LocalSocket::wait(object_.socket.get(), POLLOUT, object_.event.get(), moment);
        if (object_.closed) {
            outcome_ = WriteResult::ABORTED;
            return false;
        }
        if (waited == WaitResult::READY) return true;
        if (waited == WaitResult::FAILED) System::sleepMs(1);  // tried again, but not spun on
        object_.pace.stalled();
        // What the peer has taken may not make room enough yet, and is progress all the same.
        if (hasBeenRead()) deadline_ = Deadline::after(object_.writeTimeoutMs);
        if (!deadline_.isOver()) return true;
        PipeLog::writeTimedOut();
        outcome_ = WriteResult::TIMED_OUT;
        return false;
    }

    bool hasBeenRead() {
        const int before = std::exchange(unread_, LocalSocket::unreadMemory(object_.socket.get()));
        return unread_ >= 0 && unread_ < before;
    }

    int fail(int error) {
        if (object_.closed) return WriteResult::ABORTED;
        if (isBrokenPipe(error)) {
            if (!pending_) PipeLog::writeFoundBrokenPipe();
            return WriteResult::BROKEN;
        }
        const int number = SystemError::fromErrno(error);
        pending_ ? PipeLog::writeFailed(number) : PipeLog::writeRefused(number);
        return WriteResult::FAILED;
    }

    PipeObject& object_;
    iovec blocks_[2];  // what is left of them
    std::size_t progress_ = 0;
    int unread_ = -1;  // memory of what the peer has left, as of the last look since the last send
    Deadline deadline_;
    bool pending_ = false;
    int outcome_ = WriteResult::WRITTEN;
};

// ---- Connecting ----

/// Returns a ConnectResult or the number of a SystemError: there is a handle then, but no event.
int connectTo(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle) try {
    PipeConnector connector(path, readable, writable, timeoutMs);
    const int result = connector.connect();
    if (result != ConnectResult::CONNECTED) return result;
    const auto object = std::make_shared<PipeObject>();
    object->readable = readable;
    object->writable = writable;
    object->socket = connector.takeSocket();
    object->owner = ::getpid();
    object->event = Descriptor::event();
    const int eventError = object->event.isOpen() ? SystemError::NONE : SystemError::fromErrno(errno);
    object->connected = true;
    pipeHandle = HandleTable::instance().add(object);
    return eventError;
} catch (const std::bad_alloc&) {
    PipeLog::connectFailed(SystemError::NOT_ENOUGH_MEMORY);
    return ConnectResult::CANNOT_OPEN;
}

}  // namespace

int platformConnect(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
                    NativeHandle& eventHandle) {
    pipeHandle = INVALID_NATIVE_HANDLE;
    eventHandle = INVALID_NATIVE_HANDLE;
    const int result = connectTo(path, readable, writable, timeoutMs, pipeHandle);
    if (pipeHandle == INVALID_NATIVE_HANDLE) return result;
    PipeLog::connected(path, printable(pipeHandle), SystemError::NONE);
    if (result != ConnectResult::CONNECTED) {
        PipeLog::eventFailed(result);
        return result;
    }
    eventHandle = HandleTable::eventHandleOf(pipeHandle);
    return ConnectResult::CONNECTED;
}

int platformRead(NativeHandle pipeHandle, NativeHandle, char* buffer, int length, int timeoutMs) {
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    const int refused = accessError(object, &PipeObject::readable);
    if (refused != SystemError::NONE) return reportReadError(refused);

    const auto size = length > 0 ? static_cast<std::size_t>(length) : 0;
    const ssize_t count = receive(object->socket.get(), buffer, size);
    if (count > 0) return readCount(count, size);
    if (count == 0 && std::exchange(object->endAwaited, false)) return 0;
    const bool pending = count < 0 && wouldBlock();
    if (!pending && object->closed) return ReadResult::ABORTED;
    if (count == 0) return reportReadError(SystemError::BROKEN_PIPE);
    if (!pending) return reportReadError(SystemError::fromErrno(errno));
    return readPending(*object, buffer, size, timeoutMs);
}

int platformAwaitInput(NativeHandle pipeHandle, NativeHandle, int timeoutMs) {
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    if (accessError(object, &PipeObject::readable) != SystemError::NONE) return InputResult::FAILED;
    return InputWait(*object).run(timeoutMs);
}

void platformWake(NativeHandle pipeHandle) {
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    if (object == nullptr) return;
    const std::lock_guard<std::mutex> guard(object->wakeMutex);
    object->woken = true;
    if (object->awaitingInput) object->event.signal();
}

std::size_t platformAvailable(NativeHandle pipeHandle) {
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    int count = 0;
    if (accessError(object, &PipeObject::readable) != SystemError::NONE) return 0;
    return ::ioctl(object->socket.get(), FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
}

void platformEndReading(NativeHandle pipeHandle) {
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    if (accessError(object, &PipeObject::readable) != SystemError::NONE) return;
    ::shutdown(object->socket.get(), SHUT_RD);
}

bool platformPeerHasClosed(NativeHandle pipeHandle) {
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    if (object == nullptr || !object->connected) return object == nullptr;
    pollfd descriptor{object->socket.get(), 0, 0};
    return ::poll(&descriptor, 1, 0) > 0 && (descriptor.revents & (POLLHUP | POLLERR)) != 0;
}

int platformWriteSome(NativeHandle pipeHandle, NativeHandle, const char* first, std::size_t firstLength,
                      const char* second, std::size_t secondLength, std::size_t& written) {
    written = 0;
    if (firstLength + secondLength == 0) return WriteResult::WRITTEN;
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    const int refused = accessError(object, &PipeObject::writable);
    if (refused != SystemError::NONE) {
        PipeLog::writeRefused(refused);
        return WriteResult::FAILED;
    }
    PendingWrite write(*object, first, firstLength, second, secondLength);
    const int result = write.writeSome(WHOLE_SIZE);
    written = firstLength + secondLength - write.left();
    return result;
}

int platformWrite(NativeHandle pipeHandle, NativeHandle, const char* data, int length) {
    if (length <= 0) return WriteResult::WRITTEN;
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    const int refused = accessError(object, &PipeObject::writable);
    if (refused != SystemError::NONE) {
        PipeLog::writeRefused(refused);
        return WriteResult::FAILED;
    }
    return PendingWrite(*object, data, static_cast<std::size_t>(length)).run();
}

void platformClose(NativeHandle pipeHandle, NativeHandle eventHandle) {
    PipeLog::pipeCloses(pipeHandle, eventHandle);
    if (const ObjectPtr object = HandleTable::instance().remove(pipeHandle)) object->close();
}

const void* printable(NativeHandle handle) {
    return reinterpret_cast<const void*>(handle);
}

}  // namespace Quovane::Internal::Qvtp
