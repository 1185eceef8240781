#include "platform/PipePlatform.h"

#include "common/System.h"
#include "logging/Log.h"
#include "platform/LocalSocket_linux.h"
#include "platform/PipeConnector_linux.h"
#include "platform/PipeObject_linux.h"
#include "platform/SystemError_linux.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

using LocalSocket::WaitResult;
using ObjectPtr = std::shared_ptr<PipeObject>;

constexpr std::size_t PATIENCE_BYTES = 4096;  // this much progress earns a larger write a new WRITE_TIMEOUT_MS

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
    logWarn([&] { return text("ReadFile error: ", error); });
    return ReadResult::FAILED;
}

/// The part of a read that waits.
int readPending(const PipeObject& object, char* buffer, std::size_t length, int timeoutMs) {
    const Deadline deadline = Deadline::after(timeoutMs);
    for (;;) {
        const WaitResult waited = LocalSocket::wait(object.socket.get(), POLLIN, object.event.get(), deadline);
        if (object.closed) return ReadResult::ABORTED;
        if (waited == WaitResult::TIMED_OUT) {
            logDebug("Read timed out.");
            return ReadResult::TIMED_OUT;
        }
        if (waited != WaitResult::READY) return 0;
        const ssize_t count = receive(object.socket.get(), buffer, length);
        const int error = errno;
        if (object.closed && count <= 0) return ReadResult::ABORTED;
        if (count >= 0) return readCount(count, length);
        if (error != EAGAIN && error != EWOULDBLOCK) {
            logError([&] { return text("ReadFile failed: ", SystemError::fromErrno(error)); });
            return ReadResult::FAILED;
        }
    }
}

bool isBrokenPipe(int error) {
    return error == EPIPE || error == ECONNRESET;
}

/// One write, in as many steps as the kernel takes it.
class PendingWrite {
  public:
    PendingWrite(const PipeObject& object, const char* data, std::size_t length)
        : object_(object), data_(data), left_(length), deadline_(Deadline::after(WRITE_TIMEOUT_MS)) {}

    int run() {
        for (;;) {
            const ssize_t count = ::send(object_.socket.get(), data_, left_, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && !wouldBlock()) return fail(errno);
            if (count > 0) advance(static_cast<std::size_t>(count));
            if (left_ == 0) return WriteResult::WRITTEN;
            if (!await()) return outcome_;
        }
    }

  private:
    /// Progress restarts the clock, so that a slow but steady reader has as much time for a large block as for the same
    /// bytes in pieces. Less than a piece in a whole time-out is no progress.
    void advance(std::size_t count) {
        pending_ = true;  // begun: what ends it now is no longer an immediate failure
        data_ += count;
        left_ -= count;
        progress_ += count;
        if (progress_ < PATIENCE_BYTES) return;
        progress_ = 0;
        deadline_ = Deadline::after(WRITE_TIMEOUT_MS);
    }

    bool await() {
        pending_ = true;
        const WaitResult waited = LocalSocket::wait(object_.socket.get(), POLLOUT, object_.event.get(), deadline_);
        if (object_.closed) {
            outcome_ = WriteResult::ABORTED;
            return false;
        }
        if (waited == WaitResult::FAILED) System::sleepMs(1);  // tried again, but not spun on
        if (waited != WaitResult::TIMED_OUT) return true;
        logDebug("Write timed out.");
        outcome_ = WriteResult::TIMED_OUT;
        return false;
    }

    int fail(int error) {
        if (object_.closed) return WriteResult::ABORTED;
        if (isBrokenPipe(error)) {
            if (!pending_) logDebug("WriteFile broken pipe");
            return WriteResult::BROKEN;
        }
        const char* label = pending_ ? "WriteFile failed: " : "WriteFile error: ";
        logError([&] { return text(label, SystemError::fromErrno(error)); });
        return WriteResult::FAILED;
    }

    const PipeObject& object_;
    const char* data_;
    std::size_t left_;
    std::size_t progress_ = 0;
    Deadline deadline_;
    bool pending_ = false;
    int outcome_ = WriteResult::WRITTEN;
};

}  // namespace

int platformConnect(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
                    NativeHandle& eventHandle) {
    pipeHandle = INVALID_NATIVE_HANDLE;
    eventHandle = INVALID_NATIVE_HANDLE;
    PipeConnector connector(path, readable, writable, timeoutMs);
    const int result = connector.connect();
    if (result != ConnectResult::CONNECTED) return result;

    auto object = std::make_shared<PipeObject>();
    object->readable = readable;
    object->writable = writable;
    object->socket = connector.takeSocket();
    object->owner = ::getpid();
    object->event = Descriptor::event();
    const int eventError = object->event.isOpen() ? SystemError::NONE : SystemError::fromErrno(errno);
    object->connected = true;
    pipeHandle = HandleTable::instance().add(std::move(object));
    logDebug([&] {
        return text("CreateFile - ", path, " handle=", printable(pipeHandle), " GetLastError=", SystemError::NONE);
    });
    if (eventError != SystemError::NONE) {
        logError([&] { return text("CreateEvent failed: ", eventError); });
        return eventError;
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
    const bool pending = count < 0 && wouldBlock();
    if (!pending && object->closed) return ReadResult::ABORTED;
    if (count == 0) return reportReadError(SystemError::BROKEN_PIPE);
    if (!pending) return reportReadError(SystemError::fromErrno(errno));
    return readPending(*object, buffer, size, timeoutMs);
}

int platformWrite(NativeHandle pipeHandle, NativeHandle, const char* data, int length) {
    if (length <= 0) return WriteResult::WRITTEN;
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    const int refused = accessError(object, &PipeObject::writable);
    if (refused != SystemError::NONE) {
        logError([&] { return text("WriteFile error: ", refused); });
        return WriteResult::FAILED;
    }
    return PendingWrite(*object, data, static_cast<std::size_t>(length)).run();
}

void platformClose(NativeHandle pipeHandle, NativeHandle eventHandle) {
    logDebug([&] { return text("Close Handles: handle=", printable(pipeHandle), "; event=", printable(eventHandle)); });
    if (const ObjectPtr object = HandleTable::instance().remove(pipeHandle)) object->close();
}

const void* printable(NativeHandle handle) {
    return reinterpret_cast<const void*>(handle);
}

}  // namespace Quovane::Internal::Qvtp
