#include "platform/PipeBackEnd.h"

#include "common/System.h"
#include "platform/LocalSocket_linux.h"
#include "platform/PipeLog.h"
#include "platform/PipeObject_linux.h"
#include "platform/SystemError_linux.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

using LocalSocket::WaitResult;
using NamesGuard = std::lock_guard<std::mutex>;

// Results of a wait as the log prints them.
constexpr std::uint32_t WAIT_SIGNALLED = 0;
constexpr std::uint32_t WAIT_TIMED_OUT = 258;
constexpr std::uint32_t WAIT_BROKEN = UINT32_MAX;

std::shared_ptr<Descriptor> listenerOf(const PipeObject& object) {
    const NamesGuard guard(ServedName::namesMutex());
    return object.listener;
}

// ---- Accepting ----

/// Waits for a client on one instance. Its log lines are those of a named pipe's calls: a result at once, or a pending
/// one that is waited for.
class Accepting {
  public:
    explicit Accepting(PipeObject& object) : object_(object) {}

    int run(int timeoutMs) {
        const Deadline deadline = Deadline::after(timeoutMs);
        const int error = begin();
        PipeLog::acceptBegun(error);
        switch (error) {
            case SystemError::PIPE_CONNECTED:
                return AcceptResult::CONNECTED;
            case SystemError::IO_PENDING:
                return complete(deadline);
            default:
                return fail(error);
        }
    }

  private:
    int begin() {
        const int error = takeClient();
        return isKnownShortage(error) ? SystemError::IO_PENDING : error;
    }

    /// One try, without waiting: PIPE_CONNECTED, IO_PENDING when no client is there, or why it cannot be taken.
    int takeClient() {
        std::shared_ptr<Descriptor> listener;
        {
            const NamesGuard guard(ServedName::namesMutex());
            if (object_.isClosed()) return SystemError::IO_PENDING;  // the wait finds the close at once
            if (object_.connected) return SystemError::PIPE_CONNECTED;
            const int error = object_.served->reserveEvent();
            if (error != SystemError::NONE) return error;
            listener = object_.listener;
        }
        for (;;) {
            object_.accepting = true;  // before the queue is empty: see hasClient
            const int fd = ::accept4(listener->get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) return enterConnection(Descriptor(fd));
            object_.accepting = false;
            if (errno == EAGAIN || errno == EWOULDBLOCK || object_.isClosed()) return SystemError::IO_PENDING;
            if (errno != EINTR && errno != ECONNABORTED) return SystemError::fromErrno(errno);
        }
    }

    int enterConnection(Descriptor socket) {
        LocalSocket::reserveSendBuffer(socket.get());
        const NamesGuard guard(ServedName::namesMutex());
        if (object_.isClosed()) return SystemError::IO_PENDING;
        object_.socket = std::move(socket);
        object_.connected = true;
        object_.listener.reset();
        object_.served->instanceConnected();
        return SystemError::PIPE_CONNECTED;
    }

    int complete(const Deadline& deadline) {
        int error = SystemError::IO_PENDING;
        const std::uint32_t waited = waitForClient(deadline, error);
        PipeLog::acceptWaited(waited);
        if (waited != WAIT_SIGNALLED) {
            return waited == WAIT_TIMED_OUT ? AcceptResult::TIMED_OUT : AcceptResult::WAIT_ERROR;
        }
        // The number that a pending operation leaves when it succeeds.
        if (error == SystemError::PIPE_CONNECTED) error = SystemError::IO_PENDING;
        PipeLog::acceptCompleted(error);
        switch (error) {
            case SystemError::IO_PENDING:
                return AcceptResult::CONNECTED;
            case SystemError::OPERATION_ABORTED:
                return AcceptResult::ABORTED;
            default:
                return fail(error);
        }
    }

    std::uint32_t waitForClient(const Deadline& deadline, int& error) {
        const std::shared_ptr<Descriptor> listener = listenerOf(object_);
        // Without a listener the object is closed; its event is all there is to wait for.
        const int fd = listener != nullptr ? listener->get() : -1;
        while (error == SystemError::IO_PENDING) {
            const WaitResult waited = object_.waitOn(fd, POLLIN, deadline);
            if (object_.isClosed()) {
                error = SystemError::OPERATION_ABORTED;
            } else if (waited == WaitResult::TIMED_OUT || hasStarvedFor(deadline)) {
                return WAIT_TIMED_OUT;
            } else if (waited == WaitResult::FAILED) {
                return WAIT_BROKEN;
            } else {
                error = waitOutShortage(takeClient());
            }
        }
        return WAIT_SIGNALLED;
    }

    /// A client that cannot be taken for want of descriptors keeps the listener ready: no wait for it times out.
    bool hasStarvedFor(const Deadline& deadline) const { return object_.starved && deadline.isOver(); }

    /// A shortage that has been reported once is waited out like a client that has not come yet.
    bool isKnownShortage(int error) const { return SystemError::isShortage(error) && object_.starved; }

    int waitOutShortage(int error) {
        if (!isKnownShortage(error)) return error;
        pause();
        return SystemError::IO_PENDING;
    }

    /// What keeps a client from being taken is there for the next try too: keep the caller's loop from spinning. A
    /// shortage is reported once.
    int fail(int error) {
        PipeLog::acceptFailed(error);
        if (SystemError::isShortage(error)) object_.starved = true;
        pause();
        return AcceptResult::CONNECT_ERROR;
    }

    /// A close ends it.
    void pause() const { object_.waitOn(-1, 0, Deadline::after(BackEnd::ACCEPT_PAUSE_MS)); }

    PipeObject& object_;
};

// ---- Instances ----

/// Enters an instance of a name that was looked up just now.
int addInstance(const std::string& path, bool first, PipeObject& object) {
    PipeAddress address;
    const int error = address.resolve(path, PipeAddress::Directory::CREATE);
    if (error != SystemError::NONE) return error;
    const char direction = ServedName::directionOf(object.readable, object.writable);
    NamesGuard guard(ServedName::namesMutex());
    const int result = ServedName::addInstance(std::move(address), direction, first, object.served, object.event);
    if (result == SystemError::NONE) object.listener = object.served->listener();
    return result;
}

/// Enters an instance of the sibling's name. False if there is no such sibling any more.
bool addInstance(NativeHandle sibling, PipeObject& object, int& error) {
    const PipeCall call(sibling);
    if (!call) return false;
    const PipeObject& known = call.object();
    if (known.served == nullptr || !known.isOwn()) return false;
    NamesGuard guard(ServedName::namesMutex());
    if (known.closed) return false;
    error = known.served->addInstance(ServedName::directionOf(object.readable, object.writable), object.event);
    if (error != SystemError::NONE) return true;
    object.served = known.served;
    object.listener = known.served->listener();
    return true;
}

}  // namespace

namespace BackEnd {

int createInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable, bool first,
                   NativeHandle& pipeHandle, NativeHandle& eventHandle) {
    const auto object = std::make_shared<PipeObject>();
    object->readable = readable;
    object->writable = writable;
    object->owner = System::currentProcessId();
    int error = SystemError::NONE;
    if (!addInstance(sibling, *object, error)) error = addInstance(path, first, *object);
    if (error != SystemError::NONE) return error;
    pipeHandle = pipeTable().add(object);
    eventHandle = CountedNumbers::eventHandleOf(pipeHandle);
    return SystemError::NONE;
}

int accept(PipeObject& object, int timeoutMs) {
    if (object.isOwn()) return Accepting(object).run(timeoutMs);
    // A forked child would take the clients of its parent.
    PipeLog::acceptRefused(SystemError::INVALID_HANDLE);
    return AcceptResult::CONNECT_ERROR;
}

bool hasClient(PipeObject& object) {
    const std::shared_ptr<Descriptor> listener = listenerOf(object);
    if (listener == nullptr) return false;
    pollfd descriptor{listener->get(), POLLIN, 0};
    const bool isQueued = ::poll(&descriptor, 1, 0) > 0 && (descriptor.revents & POLLIN) != 0;
    return isQueued || object.accepting;  // in this order: a client leaves the queue after the mark is set
}

}  // namespace BackEnd

}  // namespace Quovane::Internal::Qvtp
