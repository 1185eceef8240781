#include "platform/ServerPipePlatform.h"

#include "platform/LocalSocket_linux.h"
#include "platform/PipeLog.h"
#include "platform/PipeObject_linux.h"
#include "platform/SystemError_linux.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

using LocalSocket::WaitResult;
using ObjectPtr = std::shared_ptr<PipeObject>;
using NamesGuard = std::lock_guard<std::mutex>;

constexpr int PAUSE_MS = 100;

// Results of a wait as the log prints them.
constexpr std::uint32_t WAIT_SIGNALLED = 0;
constexpr std::uint32_t WAIT_TIMED_OUT = 258;
constexpr std::uint32_t WAIT_BROKEN = UINT32_MAX;

/// Waits for a client on one instance. Its log lines are those of a named pipe's calls: a result at once, or a pending
/// one that is waited for.
class Acceptor {
  public:
    Acceptor(PipeObject& object, int timeoutMs) : object_(object), deadline_(Deadline::after(timeoutMs)) {}

    int run();

  private:
    int takeClient();
    int enterConnection(Descriptor socket);
    int waitForClient();
    int complete(int error);
    void pause();
    int reportConnectError(int error);

    PipeObject& object_;
    Deadline deadline_;
};

int Acceptor::run() {
    int error = takeClient();
    // A shortage that has been reported once is waited out like a client that has not come yet.
    if (SystemError::isShortage(error) && object_.starved) error = SystemError::IO_PENDING;
    PipeLog::acceptBegun(error);
    switch (error) {
        case SystemError::PIPE_CONNECTED:
            return AcceptResult::CONNECTED;
        case SystemError::IO_PENDING:
            return waitForClient();
        default:
            return reportConnectError(error);
    }
}

/// One try, without waiting: PIPE_CONNECTED, IO_PENDING when no client is there, or why it cannot be taken.
int Acceptor::takeClient() {
    std::shared_ptr<Descriptor> listener;
    {
        NamesGuard guard(ServedName::namesMutex());
        if (object_.closed) return SystemError::IO_PENDING;  // the wait finds the close at once
        if (object_.connected) return SystemError::PIPE_CONNECTED;
        const int error = object_.served->reserveEvent();
        if (error != SystemError::NONE) return error;
        listener = object_.listener;
    }
    for (;;) {
        object_.accepting = true;  // before the queue is empty: see platformHasClient
        const int fd = ::accept4(listener->get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) return enterConnection(Descriptor(fd));
        object_.accepting = false;
        if (errno == EAGAIN || errno == EWOULDBLOCK || object_.closed) return SystemError::IO_PENDING;
        if (errno != EINTR && errno != ECONNABORTED) return SystemError::fromErrno(errno);
    }
}

int Acceptor::enterConnection(Descriptor socket) {
    LocalSocket::reserveSendBuffer(socket.get());
    NamesGuard guard(ServedName::namesMutex());
    if (object_.closed) return SystemError::IO_PENDING;
    object_.socket = std::move(socket);
    object_.connected = true;
    object_.listener.reset();
    object_.served->instanceConnected();
    return SystemError::PIPE_CONNECTED;
}

int Acceptor::waitForClient() {
    std::shared_ptr<Descriptor> listener;
    {
        NamesGuard guard(ServedName::namesMutex());
        listener = object_.listener;
    }
    for (;;) {
        // Without a listener the object is closed; its event is all there is to wait for.
        const int fd = listener != nullptr ? listener->get() : -1;
        const WaitResult waited = LocalSocket::wait(fd, POLLIN, object_.event.get(), deadline_);
        if (object_.closed) return complete(SystemError::OPERATION_ABORTED);
        // A client that cannot be taken for want of descriptors keeps the listener ready: look at the time as well.
        const bool timedOut = waited == WaitResult::TIMED_OUT || (object_.starved && deadline_.isOver());
        if (timedOut || waited == WaitResult::FAILED) {
            PipeLog::acceptWaited(timedOut ? WAIT_TIMED_OUT : WAIT_BROKEN);
            return timedOut ? AcceptResult::TIMED_OUT : AcceptResult::WAIT_ERROR;
        }
        const int error = takeClient();
        if (error == SystemError::PIPE_CONNECTED) return complete(SystemError::IO_PENDING);
        if (SystemError::isShortage(error) && object_.starved) {
            pause();
        } else if (error != SystemError::IO_PENDING) {
            return complete(error);
        }
    }
}

/// The end of a wait. `error` is IO_PENDING for success: the number that a completed operation leaves behind.
int Acceptor::complete(int error) {
    PipeLog::acceptWaited(WAIT_SIGNALLED);
    PipeLog::acceptCompleted(error);
    if (error == SystemError::OPERATION_ABORTED) return AcceptResult::ABORTED;
    return error == SystemError::IO_PENDING ? AcceptResult::CONNECTED : reportConnectError(error);
}

/// A close ends it.
void Acceptor::pause() {
    LocalSocket::wait(-1, 0, object_.event.get(), Deadline::after(PAUSE_MS));
}

/// What keeps a client from being taken is there for the next try too: keep the caller's loop from spinning. A shortage
/// is reported once.
int Acceptor::reportConnectError(int error) {
    PipeLog::acceptFailed(error);
    if (SystemError::isShortage(error)) object_.starved = true;
    pause();
    return AcceptResult::CONNECT_ERROR;
}

int acceptOn(NativeHandle pipeHandle, int timeoutMs) {
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    // A forked child would take the clients of its parent.
    if (object != nullptr && object->isOwn()) return Acceptor(*object, timeoutMs).run();
    PipeLog::acceptRefused(SystemError::INVALID_HANDLE);
    return AcceptResult::CONNECT_ERROR;
}

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
    const ObjectPtr known = HandleTable::instance().find(sibling);
    if (known == nullptr || known->served == nullptr || !known->isOwn()) return false;
    NamesGuard guard(ServedName::namesMutex());
    if (known->closed) return false;
    error = known->served->addInstance(ServedName::directionOf(object.readable, object.writable), object.event);
    if (error != SystemError::NONE) return true;
    object.served = known->served;
    object.listener = known->served->listener();
    return true;
}

/// Returns 0 or the number of a SystemError. Leaves nothing behind unless there is a handle.
int makeInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable, bool first,
                 NativeHandle& pipeHandle) try {
    const auto object = std::make_shared<PipeObject>();
    object->readable = readable;
    object->writable = writable;
    object->owner = ::getpid();
    int error = SystemError::NONE;
    if (!addInstance(sibling, *object, error)) error = addInstance(path, first, *object);
    if (error == SystemError::NONE) pipeHandle = HandleTable::instance().add(object);
    return error;
} catch (const std::bad_alloc&) {
    return SystemError::NOT_ENOUGH_MEMORY;
}

int createInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable, bool first,
                   NativeHandle& pipeHandle, NativeHandle& eventHandle) {
    pipeHandle = INVALID_NATIVE_HANDLE;
    eventHandle = INVALID_NATIVE_HANDLE;
    const int error = makeInstance(sibling, path, readable, writable, first, pipeHandle);
    if (error != SystemError::NONE) {
        PipeLog::createFailed(error);
        return error;
    }
    eventHandle = HandleTable::eventHandleOf(pipeHandle);
    PipeLog::instanceCreated(pipeHandle, eventHandle);
    return SystemError::NONE;
}

}  // namespace

int platformCreateInstance(const std::string& path, bool readable, bool writable, bool first, NativeHandle& pipeHandle,
                           NativeHandle& eventHandle) {
    return createInstance(INVALID_NATIVE_HANDLE, path, readable, writable, first, pipeHandle, eventHandle);
}

int platformCreateNextInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable,
                               NativeHandle& pipeHandle, NativeHandle& eventHandle) {
    return createInstance(sibling, path, readable, writable, false, pipeHandle, eventHandle);
}

int platformAccept(NativeHandle pipeHandle, NativeHandle, int timeoutMs) {
    PipeLog::acceptCalled();
    const int result = acceptOn(pipeHandle, timeoutMs);
    if (result == AcceptResult::ABORTED) return result;
    PipeLog::acceptReturns(result);
    return result;
}

bool platformHasClient(NativeHandle pipeHandle) {
    const ObjectPtr object = HandleTable::instance().find(pipeHandle);
    if (object == nullptr) return false;
    std::shared_ptr<Descriptor> listener;
    {
        NamesGuard guard(ServedName::namesMutex());
        listener = object->listener;
    }
    if (listener == nullptr) return false;
    pollfd descriptor{listener->get(), POLLIN, 0};
    const bool isQueued = ::poll(&descriptor, 1, 0) > 0 && (descriptor.revents & POLLIN) != 0;
    return isQueued || object->accepting;  // in this order: a client leaves the queue after the mark is set
}

void platformCloseServer(NativeHandle pipeHandle, NativeHandle eventHandle) {
    PipeLog::instanceCloses(pipeHandle, eventHandle);
    if (const ObjectPtr object = HandleTable::instance().remove(pipeHandle)) object->close();
}

}  // namespace Quovane::Internal::Qvtp
