#include "platform/PipeBackEnd.h"

#include "common/System.h"
#include "platform/LocalSocket_linux.h"
#include "platform/PipeConnector_linux.h"
#include "platform/PipeFailure.h"
#include "platform/PipeLog.h"
#include "platform/PipeObject_linux.h"
#include "platform/Receiving_linux.h"
#include "platform/Steps.h"
#include "platform/SystemError_linux.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

using LocalSocket::WaitResult;

// How long a wait for input lasts that should be woken and cannot be.
constexpr int WAKE_STEP_MS = 20;

// A write that waits looks so often in its time-out whether the peer has taken something.
constexpr int LOOKS = 100;

// A message of this size becomes one buffer of the kernel, which its reader gets as a whole or not at all.
constexpr std::size_t WHOLE_SIZE = 32768;

// To copy so much costs less than the system's call for two blocks.
constexpr std::size_t JOINED_SIZE = 1024;

// ---- Reading ----

/// One read.
class Reading {
  public:
    Reading(PipeObject& object, char* buffer, std::size_t length)
        : object_(object), length_(length), receiving_(object, buffer, length, Receiving::Wake::NEVER) {}

    int run(int timeoutMs) {
        return beginAndWait(
            timeoutMs, [this] { return begin(); },
            [this](const Deadline& deadline) { return complete(receiving_.wait(deadline)); });
    }

  private:
    /// Nothing if it has to wait.
    std::optional<int> begin() {
        const int refused = object_.accessError(object_.readable);
        if (refused != SystemError::NONE) return PipeFailure::refuseRead(refused);
        if (std::exchange(object_.endAwaited, false)) return 0;  // nothing comes after an end
        receiving_.attempt();
        if (receiving_.count() > 0) return delivered();
        const bool isAtEnd = receiving_.count() == 0;
        if (receiving_.mustWait()) return std::nullopt;
        if (object_.isClosed()) return ReadResult::ABORTED;
        return PipeFailure::refuseRead(isAtEnd ? SystemError::BROKEN_PIPE : SystemError::fromErrno(receiving_.error()));
    }

    /// Nothing if the wait ended for another reason than this read.
    std::optional<int> complete(WaitResult waited) {
        if (waited == WaitResult::READY && receiving_.count() > 0) return delivered();
        if (object_.isClosed()) return ReadResult::ABORTED;
        if (waited == WaitResult::TIMED_OUT) {
            PipeLog::readTimedOut();
            return ReadResult::TIMED_OUT;
        }
        if (waited != WaitResult::READY || receiving_.count() == 0) return 0;
        return PipeFailure::failRead(SystemError::fromErrno(receiving_.error()));
    }

    int delivered() const { return length_ > 0 ? static_cast<int>(receiving_.count()) : 0; }

    PipeObject& object_;
    const std::size_t length_;
    Receiving receiving_;
};

/// One wait for input. Another thread may end it through platformWake.
class InputWait {
  public:
    InputWait(PipeObject& object, char* buffer, std::size_t length, Receiving::Wake wake)
        : object_(object), length_(length), receiving_(object, buffer, length, wake) {}

    int run(int timeoutMs) {
        return beginAndWait(
            timeoutMs, [this] { return begin(); },
            [this](const Deadline& deadline) { return complete(receiving_.wait(deadline)); });
    }

    /// How many bytes were taken.
    int taken() const { return length_ > 0 && receiving_.count() > 0 ? static_cast<int>(receiving_.count()) : 0; }

  private:
    /// Nothing if it has to wait.
    std::optional<int> begin() {
        const bool waited = std::exchange(object_.awaitedBefore, false);
        receiving_.attempt();
        return outcome(waited);
    }

    int complete(WaitResult waited) {
        switch (waited) {
            case WaitResult::TIMED_OUT:
                object_.awaitedBefore = true;
                return InputResult::TIMED_OUT;
            case WaitResult::SIGNALLED:
                object_.awaitedBefore = true;
                return object_.isClosed() ? InputResult::ABORTED : InputResult::WOKEN;
            case WaitResult::READY:
                return outcome(true).value_or(InputResult::INPUT);
            default:
                return InputResult::INPUT;  // the read reports why
        }
    }

    /// Nothing if there was nothing.
    std::optional<int> outcome(bool waited) {
        if (object_.isClosed()) return InputResult::ABORTED;
        if (receiving_.mustWait()) return std::nullopt;
        if (receiving_.count() == 0) object_.endAwaited = waited;
        return InputResult::INPUT;
    }

    PipeObject& object_;
    const std::size_t length_;
    Receiving receiving_;
};

// ---- Writing ----

/// One write of two blocks, in as many steps as the kernel takes it.
class Writing {
  public:
    Writing(PipeObject& object, const char* first, std::size_t firstLength, const char* second = nullptr,
            std::size_t secondLength = 0)
        : object_(object),
          blocks_{{const_cast<char*>(first), firstLength}, {const_cast<char*>(second), secondLength}} {}

    int run() {
        return untilResult([this] { return step(ReaderPace::PIECE); });
    }

    /// Ends after the first progress.
    int runOnce() { return step(WHOLE_SIZE).value_or(WriteResult::WRITTEN); }

    std::size_t left() const { return blocks_[0].iov_len + blocks_[1].iov_len; }

  private:
    /// Up to `wholeSize` bytes leave in one piece or not at all. Nothing while there is more to write.
    std::optional<int> step(std::size_t wholeSize) {
        const int refused = object_.accessError(object_.writable);
        if (refused != SystemError::NONE) return PipeFailure::refuseWrite(refused);
        for (;;) {
            const ssize_t count = send(left() <= wholeSize ? left() : object_.pace.limit());
            const int error = errno;
            if (count > 0) return advance(static_cast<std::size_t>(count));
            if (count < 0 && error == EINTR) continue;
            if (count < 0 && error != EAGAIN) return end(error);
            const std::optional<int> result = complete(waitForRoom());
            if (result) return result;
        }
    }

    ssize_t send(std::size_t limit) const {
        constexpr int FLAGS = MSG_DONTWAIT | MSG_NOSIGNAL;
        const int fd = object_.socket.get();
        iovec blocks[] = {blocks_[0], blocks_[1]};
        blocks[0].iov_len = std::min(blocks[0].iov_len, limit);
        blocks[1].iov_len = std::min(blocks[1].iov_len, limit - blocks[0].iov_len);
        const std::size_t length = blocks[0].iov_len + blocks[1].iov_len;
        const bool isOneBlock = static_cast<char*>(blocks[0].iov_base) + blocks[0].iov_len == blocks[1].iov_base;
        if (isOneBlock || blocks[1].iov_len == 0) return ::send(fd, blocks[0].iov_base, length, FLAGS);
        if (length <= JOINED_SIZE) {
            char joined[JOINED_SIZE];
            std::memcpy(joined, blocks[0].iov_base, blocks[0].iov_len);
            std::memcpy(joined + blocks[0].iov_len, blocks[1].iov_base, blocks[1].iov_len);
            return ::send(fd, joined, length, FLAGS);
        }
        msghdr message{};
        message.msg_iov = blocks;
        message.msg_iovlen = 2;
        return ::sendmsg(fd, &message, FLAGS);
    }

    /// Waits only for a moment: the socket counts as writable when three quarters of its memory are free, a send
    /// succeeds as soon as any is.
    WaitResult waitForRoom() {
        pending_ = true;
        if (!deadline_) restartClock();
        if (unread_ < 0) unread_ = LocalSocket::unreadMemory(object_.socket.get());
        return object_.wait(POLLOUT, Deadline::after(std::max(object_.writeTimeoutMs / LOOKS, 1)));
    }

    /// Nothing if it is worth another try.
    std::optional<int> complete(WaitResult waited) {
        if (object_.isClosed()) return WriteResult::ABORTED;
        if (waited == WaitResult::READY) return std::nullopt;
        if (waited == WaitResult::FAILED) System::sleepMs(1);  // tried again, but not spun on
        object_.pace.stalled();
        // What the peer has taken may not make room enough yet, and is progress all the same.
        if (hasBeenRead()) restartClock();
        if (!deadline_->isOver()) return std::nullopt;
        PipeLog::writeTimedOut();
        return WriteResult::TIMED_OUT;
    }

    bool hasBeenRead() {
        const int before = std::exchange(unread_, LocalSocket::unreadMemory(object_.socket.get()));
        return unread_ >= 0 && unread_ < before;
    }

    /// Progress restarts the clock, so that a slow but steady reader has as much time for a large block as for the same
    /// bytes in pieces. Less than a piece in a whole time-out is no progress. Nothing while there is more to write.
    std::optional<int> advance(std::size_t count) {
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
        if (left() == 0) return WriteResult::WRITTEN;
        if (progress_ >= ReaderPace::PIECE) {
            progress_ = 0;
            deadline_.reset();
        }
        return std::nullopt;
    }

    void restartClock() { deadline_ = Deadline::after(object_.writeTimeoutMs); }

    /// The system takes nothing more.
    int end(int error) const {
        if (object_.isClosed()) return WriteResult::ABORTED;
        if (error == EPIPE || error == ECONNRESET) {
            if (!pending_) PipeLog::writeFoundBrokenPipe();
            return WriteResult::BROKEN;
        }
        const int number = SystemError::fromErrno(error);
        return pending_ ? PipeFailure::failWrite(number) : PipeFailure::refuseWrite(number);
    }

    PipeObject& object_;
    iovec blocks_[2];  // what is left of them
    std::size_t progress_ = 0;
    int unread_ = -1;                   // memory of what the peer has left, as of the last look since the last send
    std::optional<Deadline> deadline_;  // from the first wait on: most writes have none
    bool pending_ = false;
};

}  // namespace

namespace BackEnd {

OpenHandles& handles() {
    return pipeTable();
}

int connect(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
            NativeHandle& eventHandle) {
    PipeConnector connector(path, readable, writable, timeoutMs);
    const int result = connector.connect();
    if (result != ConnectResult::CONNECTED) return result;
    const auto object = std::make_shared<PipeObject>();
    object->readable = readable;
    object->writable = writable;
    object->socket = connector.takeSocket();
    object->owner = System::currentProcessId();
    object->wakeEvent = Descriptor::event();
    const int eventError = object->wakeEvent.isOpen() ? SystemError::NONE : SystemError::fromErrno(errno);
    object->connected = true;
    pipeHandle = pipeTable().add(object);
    PipeLog::connected(path, printable(pipeHandle), SystemError::NONE);
    if (eventError != SystemError::NONE) return eventError;
    eventHandle = CountedNumbers::eventHandleOf(pipeHandle);
    return ConnectResult::CONNECTED;
}

int read(PipeObject& object, char* buffer, std::size_t length, int timeoutMs) {
    return Reading(object, buffer, length).run(timeoutMs);
}

int write(PipeObject& object, const char* data, std::size_t length) {
    return Writing(object, data, length).run();
}

int writeBoth(PipeObject& object, const char* first, std::size_t firstLength, const char* second,
              std::size_t secondLength) {
    return Writing(object, first, firstLength, second, secondLength).run();
}

int writeSome(PipeObject& object, const char* first, std::size_t firstLength, const char* second,
              std::size_t secondLength, std::size_t& written) {
    Writing writing(object, first, firstLength, second, secondLength);
    const int result = writing.runOnce();
    written = firstLength + secondLength - writing.left();
    return result;
}

int takeInput(PipeObject& object, char* buffer, std::size_t length, int timeoutMs, bool wakeable, int& taken) {
    if (object.accessError(object.readable) != SystemError::NONE) return InputResult::FAILED;
    std::optional<InputWake::Scope<PipeObject>> scope;
    if (wakeable && !scope.emplace(object).hasBegun()) return InputResult::WOKEN;
    InputWait wait(object, buffer, length, wakeable ? Receiving::Wake::POSSIBLE : Receiving::Wake::NEVER);
    // Without descriptors for the event it looks from time to time whether it was woken.
    const bool isShortened = wakeable && !object.wakeEvent.isOpen() && (timeoutMs <= 0 || timeoutMs > WAKE_STEP_MS);
    const int result = wait.run(isShortened ? WAKE_STEP_MS : timeoutMs);
    taken = wait.taken();
    return isShortened && result == InputResult::TIMED_OUT ? InputResult::WOKEN : result;
}

void wake(PipeObject& object) {
    object.wakeInputWait();
}

std::size_t available(PipeObject& object) {
    if (object.accessError(object.readable) != SystemError::NONE) return 0;
    int count = 0;
    const bool isKnown = ::ioctl(object.socket.get(), FIONREAD, &count) == 0;
    return object.ahead.size() + (isKnown ? static_cast<std::size_t>(count) : 0);
}

std::size_t peek(PipeObject& object, char* buffer, std::size_t length) {
    if (object.accessError(object.readable) != SystemError::NONE) return 0;
    const std::size_t ahead = object.ahead.copy(buffer, length);
    const ssize_t there = ::recv(object.socket.get(), buffer + ahead, length - ahead, MSG_PEEK | MSG_DONTWAIT);
    return ahead + static_cast<std::size_t>(std::max<ssize_t>(there, 0));
}

void endReading(PipeObject& object) {
    if (object.accessError(object.readable) == SystemError::NONE) ::shutdown(object.socket.get(), SHUT_RD);
}

bool peerHasClosed(PipeObject& object) {
    if (!object.connected) return false;
    pollfd descriptor{object.socket.get(), 0, 0};  // an end shows whatever is asked for
    return ::poll(&descriptor, 1, 0) > 0;
}

/// A process of another namespace has the number 0 here.
PeerIds peer(PipeObject& object) {
    PeerIds ids;
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (!object.connected) return ids;
    if (::getsockopt(object.socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return ids;
    if (credentials.pid > 0) ids.processId = credentials.pid;
    ids.userId = credentials.uid;
    ids.groupId = credentials.gid;
    return ids;
}

}  // namespace BackEnd

std::size_t platformBlockSize() {
    return std::numeric_limits<std::size_t>::max();
}

}  // namespace Quovane::Internal::Qvtp
