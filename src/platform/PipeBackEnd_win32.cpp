#include "platform/PipeBackEnd.h"

#include "platform/Deadline.h"
#include "platform/Operation_win32.h"
#include "platform/PipeFailure.h"
#include "platform/PipeLog.h"
#include "platform/PipeObject_win32.h"
#include "platform/Steps.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

// Results are judged by the last error. Log calls leave it as they found it.

namespace Quovane::Internal::Qvtp {

namespace {

constexpr std::size_t GATHERED_SIZE = 65536;  // what a pipe takes without a reader

// ---- Connecting ----

DWORD accessMask(bool readable, bool writable) {
    return (readable ? GENERIC_READ : 0) | (writable ? GENERIC_WRITE : 0);
}

HANDLE openPipe(const std::string& path, DWORD access) {
    return ::CreateFileA(path.c_str(), access, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
}

/// After a failed open: waits for a free instance and tries again, each time for the full time-out.
int openBusyPipe(const std::string& path, DWORD access, int timeoutMs, HANDLE& pipe) {
    const DWORD limit = timeoutMs == 0 ? NMPWAIT_WAIT_FOREVER : static_cast<DWORD>(timeoutMs);
    while (pipe == INVALID_HANDLE_VALUE) {
        const DWORD error = ::GetLastError();
        if (error == ERROR_ACCESS_DENIED) return ConnectResult::ACCESS_DENIED;
        if (error != ERROR_PIPE_BUSY) {
            PipeLog::connectFailed(error);
            return ConnectResult::CANNOT_OPEN;
        }
        PipeLog::waitsForInstance();
        if (!::WaitNamedPipeA(path.c_str(), limit)) {
            PipeLog::connectTimedOut(path, timeoutMs);
            return ConnectResult::TIMED_OUT;
        }
        pipe = openPipe(path, access);
    }
    return ConnectResult::CONNECTED;
}

// ---- Reading ----

/// One read. The bytes arrive in memory of the object and are copied: a read that times out stays pending and must not
/// find the caller's buffer gone. The next read goes on waiting for it, so that what it took is not lost.
class Reading {
  public:
    Reading(PipeObject& object, char* buffer, std::size_t length) : object_(object), buffer_(buffer), length_(length) {}

    int run(int timeoutMs) {
        if (!object_.unread.empty()) return deliverUnread();
        if (std::exchange(object_.endAwaited, false)) return 0;
        return beginAndWait(
            timeoutMs, [this] { return begin(); },
            [this](const Deadline& deadline) { return complete(object_.wait(*operation_, deadline)); });
    }

  private:
    /// Nothing if it has to wait.
    std::optional<int> begin() {
        DWORD count = 0;
        const DWORD error = continueOrRead(count);
        if (error == ERROR_IO_PENDING) return std::nullopt;
        return error == ERROR_SUCCESS ? deliver(count) : PipeFailure::refuseRead(error);
    }

    DWORD continueOrRead(DWORD& count) {
        operation_ = std::move(object_.pendingRead);
        if (operation_ != nullptr) {
            object_.prepareToWaitAgain(*operation_);
            if (operation_->isPending() || object_.finish(*operation_, count) == ERROR_IO_PENDING) {
                return ERROR_IO_PENDING;
            }
            // It has failed meanwhile, perhaps only because the thread that began it is gone: the next says why.
        }
        operation_ = std::make_unique<Operation>(object_.event(), length_);
        const DWORD size = static_cast<DWORD>(length_);
        if (::ReadFile(object_.pipe(), operation_->data(), size, &count, operation_->record())) return ERROR_SUCCESS;
        return ::GetLastError();
    }

    /// Nothing if the wait ended for another reason than this read.
    std::optional<int> complete(DWORD waited) {
        if (waited != WAIT_OBJECT_0) {
            object_.pendingRead = std::move(operation_);
            if (waited != WAIT_TIMEOUT) return 0;
            PipeLog::readTimedOut();
            return ReadResult::TIMED_OUT;
        }
        const bool closed = object_.isClosed();
        if (operation_->isPending()) {
            object_.pendingRead = std::move(operation_);
            if (closed) return ReadResult::ABORTED;
            return begin();  // another operation has signalled the event
        }
        DWORD count = 0;
        const DWORD error = object_.finish(*operation_, count);
        switch (error) {
            case ERROR_IO_PENDING:
                if (count == 0 && operation_->size() == 0 && length_ > 0) return begin();  // asked for no bytes
                return deliver(count);
            case ERROR_BROKEN_PIPE:
                return deliver(count);
            case ERROR_OPERATION_ABORTED:
                if (!closed) return begin();  // the thread that began it has ended
                return ReadResult::ABORTED;
            default:
                return PipeFailure::failRead(error);
        }
    }

    int deliver(std::size_t count) {
        const std::size_t given = std::min(count, length_);
        if (given > 0) std::memcpy(buffer_, operation_->data(), given);
        object_.unread.assign(operation_->data() + given, count - given);
        return static_cast<int>(given);
    }

    int deliverUnread() {
        const std::size_t given = object_.unread.copy(buffer_, length_);
        object_.unread.erase(0, given);
        return static_cast<int>(given);
    }

    PipeObject& object_;
    char* const buffer_;
    const std::size_t length_;
    std::unique_ptr<Operation> operation_;
};

/// One wait for input: a read of no bytes, which completes when there are some and takes none. Another thread may end
/// the wait through platformWake.
class InputWait {
  public:
    explicit InputWait(PipeObject& object) : object_(object) {}

    int run(int timeoutMs) {
        return beginAndWait(
            timeoutMs, [this] { return begin(); },
            [this](const Deadline& deadline) {
                object_.renewWake();
                return complete(object_.wait(*operation_, deadline));
            });
    }

  private:
    /// Nothing if it has to wait.
    std::optional<int> begin() {
        if (!object_.unread.empty() || object_.endAwaited) return InputResult::INPUT;
        operation_ = std::move(object_.pendingRead);
        if (operation_ != nullptr) {
            object_.prepareToWaitAgain(*operation_);
            return std::nullopt;
        }
        DWORD count = 0;
        operation_ = std::make_unique<Operation>(object_.event(), 0);
        const BOOL done = ::ReadFile(object_.pipe(), operation_->data(), 0, &count, operation_->record());
        if (!done && ::GetLastError() == ERROR_IO_PENDING) return std::nullopt;
        return InputResult::INPUT;  // whatever it is, the next read finds it at once too
    }

    /// Nothing if the wait has to go on.
    std::optional<int> complete(DWORD waited) {
        const bool closed = object_.isClosed();
        if (waited != WAIT_OBJECT_0 || operation_->isPending()) {
            object_.pendingRead = std::move(operation_);
            if (waited == WAIT_TIMEOUT) return InputResult::TIMED_OUT;
            if (closed) return InputResult::ABORTED;
            return waited == WAIT_OBJECT_0 ? InputResult::WOKEN : InputResult::INPUT;
        }
        DWORD count = 0;
        switch (object_.finish(*operation_, count)) {
            case ERROR_IO_PENDING:
                // An earlier read that timed out may have brought bytes.
                object_.unread.append(operation_->data(), count);
                return InputResult::INPUT;
            case ERROR_BROKEN_PIPE:
                object_.endAwaited = true;
                return InputResult::INPUT;
            case ERROR_OPERATION_ABORTED:
                if (!closed) return begin();  // the thread that began it has ended
                return InputResult::ABORTED;
            default:
                return InputResult::INPUT;  // the read reports why
        }
    }

    PipeObject& object_;
    std::unique_ptr<Operation> operation_;
};

// ---- Writing ----

/// One write, repeated for what the system did not take. The bytes are copied, since a write that times out stays
/// pending while the caller goes on.
class Writing {
  public:
    Writing(PipeObject& object, const char* data, std::size_t length) : object_(object), data_(data), left_(length) {}

    int run() {
        return untilResult([this] { return step(); });
    }

    /// Ends after the first progress.
    int runOnce() { return step().value_or(WriteResult::WRITTEN); }

    std::size_t left() const { return left_; }

  private:
    /// Nothing while there is more to write.
    std::optional<int> step() {
        auto operation = std::make_unique<Operation>(object_.event(), left_);
        std::memcpy(operation->data(), data_, left_);
        DWORD count = 0;
        const DWORD size = static_cast<DWORD>(left_);
        if (::WriteFile(object_.pipe(), operation->data(), size, &count, operation->record())) {
            if (count > 0) return advance(count);
            PipeLog::writeTookNothing();
            return WriteResult::WRITTEN;
        }
        const DWORD error = ::GetLastError();
        if (error != ERROR_IO_PENDING) return refuse(error);
        const DWORD waited = object_.wait(*operation, Deadline::after(WRITE_TIMEOUT_MS));
        return complete(std::move(operation), waited);
    }

    /// Nothing while there is more to write.
    std::optional<int> complete(std::unique_ptr<Operation> operation, DWORD waited) {
        if (waited != WAIT_OBJECT_0) {
            // Without an event there is no wait. The bytes must not be sent again: the first try may yet succeed.
            const DWORD error = ::GetLastError();
            object_.keep(std::move(operation));
            if (waited != WAIT_TIMEOUT) return fail(error);
            PipeLog::writeTimedOut();
            return WriteResult::TIMED_OUT;
        }
        DWORD count = 0;
        const DWORD error = object_.finish(*operation, count);
        if (operation->isPending()) object_.keep(std::move(operation));
        if (error != ERROR_IO_PENDING) return fail(error);
        if (count > 0) return advance(count);
        PipeLog::pendingWriteTookNothing();
        return WriteResult::WRITTEN;
    }

    std::optional<int> advance(std::size_t count) {
        data_ += count;
        left_ -= count;
        if (left_ == 0) return WriteResult::WRITTEN;
        if (object_.isClosed()) return WriteResult::ABORTED;
        return std::nullopt;
    }

    /// It failed at once.
    static int refuse(DWORD error) {
        switch (error) {
            case ERROR_OPERATION_ABORTED:
                PipeLog::writeWasAborted();
                return WriteResult::ABORTED;
            case ERROR_BROKEN_PIPE:
            case ERROR_NO_DATA:
                PipeLog::writeFoundBrokenPipe();
                return WriteResult::BROKEN;
            default:
                return PipeFailure::refuseWrite(error);
        }
    }

    /// It failed after a wait.
    static int fail(DWORD error) {
        switch (error) {
            case ERROR_OPERATION_ABORTED:
                return WriteResult::ABORTED;
            case ERROR_BROKEN_PIPE:
                return WriteResult::BROKEN;
            default:
                return PipeFailure::failWrite(error);
        }
    }

    PipeObject& object_;
    const char* data_;
    std::size_t left_;
};

}  // namespace

namespace BackEnd {

OpenHandles& handles() {
    return pipeTable();
}

int connect(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
            NativeHandle& eventHandle) {
    const auto object = std::make_shared<PipeObject>();
    const DWORD access = accessMask(readable, writable);
    HANDLE pipe = openPipe(path, access);
    const int result = openBusyPipe(path, access, timeoutMs, pipe);
    if (result != ConnectResult::CONNECTED) return result;
    PipeLog::connected(path, pipe, ::GetLastError());
    const HANDLE event = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const DWORD eventError = ::GetLastError();
    object->adopt(pipe, event);
    pipeHandle = pipeTable().add(object);
    if (event == nullptr) return static_cast<int>(eventError);
    eventHandle = reinterpret_cast<NativeHandle>(event);
    return ConnectResult::CONNECTED;
}

int read(PipeObject& object, char* buffer, std::size_t length, int timeoutMs) try {
    return Reading(object, buffer, length).run(timeoutMs);
} catch (const std::bad_alloc&) {
    return PipeFailure::refuseRead(ERROR_NOT_ENOUGH_MEMORY);
}

int write(PipeObject& object, const char* data, std::size_t length) try {
    return Writing(object, data, length).run();
} catch (const std::bad_alloc&) {
    return PipeFailure::refuseWrite(ERROR_NOT_ENOUGH_MEMORY);
}

/// A named pipe has no gathered write: small blocks are joined, large ones leave one after another.
int writeBoth(PipeObject& object, const char* first, std::size_t firstLength, const char* second,
              std::size_t secondLength) try {
    if (firstLength + secondLength <= GATHERED_SIZE) {
        std::string joined(first, firstLength);
        joined.append(second, secondLength);
        return write(object, joined.data(), joined.size());
    }
    int result = firstLength > 0 ? write(object, first, firstLength) : WriteResult::WRITTEN;
    for (std::size_t done = 0; result == WriteResult::WRITTEN && done < secondLength;) {
        const std::size_t size = std::min(secondLength - done, platformBlockSize());
        result = write(object, second + done, size);
        done += size;
    }
    return result;
} catch (const std::bad_alloc&) {
    return PipeFailure::refuseWrite(ERROR_NOT_ENOUGH_MEMORY);
}

/// One call of the system for what fits into the pipe, from one block: a named pipe has no gathered write.
int writeSome(PipeObject& object, const char* first, std::size_t firstLength, const char* second,
              std::size_t secondLength, std::size_t& written) try {
    const std::size_t size = firstLength + secondLength <= GATHERED_SIZE ? GATHERED_SIZE : platformBlockSize();
    std::string joined(first, std::min(firstLength, size));
    joined.append(second, std::min(secondLength, size - joined.size()));
    Writing writing(object, joined.data(), joined.size());
    const int result = writing.runOnce();
    written = joined.size() - writing.left();
    return result;
} catch (const std::bad_alloc&) {
    return PipeFailure::refuseWrite(ERROR_NOT_ENOUGH_MEMORY);
}

/// Reading is a call of its own here, and every wait has the event.
int takeInput(PipeObject& object, char*, std::size_t, int timeoutMs, bool, int&) try {
    const InputWake::Scope<PipeObject> scope(object);
    return scope.hasBegun() ? InputWait(object).run(timeoutMs) : InputResult::WOKEN;
} catch (const std::bad_alloc&) {
    return InputResult::INPUT;  // the read reports it
}

void wake(PipeObject& object) {
    object.wakeInputWait();
}

std::size_t available(PipeObject& object) {
    DWORD count = 0;
    const BOOL known = ::PeekNamedPipe(object.pipe(), nullptr, 0, nullptr, &count, nullptr);
    return object.unread.size() + (known ? count : 0);
}

std::size_t peek(PipeObject& object, char* buffer, std::size_t length) {
    const std::size_t unread = object.unread.copy(buffer, length);
    const DWORD wanted = static_cast<DWORD>(std::min<std::size_t>(length - unread, MAXDWORD));
    DWORD there = 0;
    const BOOL known = ::PeekNamedPipe(object.pipe(), buffer + unread, wanted, &there, nullptr, nullptr);
    return unread + (known ? there : 0);
}

/// A named pipe has no half that could be closed: the caller looks at what is available and leaves.
void endReading(PipeObject&) {}

/// The end shows only when nothing is left before it. What cannot be dropped without the memory for it is reported by
/// the read.
bool peerHasClosed(PipeObject& object) {
    DWORD count = 0;
    while (::PeekNamedPipe(object.pipe(), nullptr, 0, nullptr, &count, nullptr)) {
        if (count == 0) return false;
        char dropped[4096];
        if (read(object, dropped, sizeof dropped, 1) <= 0) return false;
    }
    return ::GetLastError() == ERROR_BROKEN_PIPE || ::GetLastError() == ERROR_PIPE_NOT_CONNECTED;
}

PeerIds peer(PipeObject& object) {
    PeerIds ids;
    ULONG processId = 0;
    if (::GetNamedPipeClientProcessId(object.pipe(), &processId) && processId != 0) ids.processId = processId;
    return ids;
}

}  // namespace BackEnd

std::size_t platformBlockSize() {
    return 4096;
}

}  // namespace Quovane::Internal::Qvtp
