#include "platform/PipeBackEnd.h"

#include "common/System.h"
#include "platform/LocalSocket_linux.h"
#include "platform/PipeLog.h"
#include "platform/PipeObject_linux.h"
#include "platform/Refusal_linux.h"
#include "platform/SystemError_linux.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
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

/// How long a removal of several files may take: it is one, and whoever removes a directory finds it empty.
constexpr int REMOVAL_MS = 10;
/// How long a name stays lost before it is tried again.
constexpr int RETRY_MS = 1000;
constexpr std::chrono::milliseconds RETRY_TIME(RETRY_MS);

/// What an instance takes its client from; null when it waits for none.
std::shared_ptr<Descriptor> queueOf(const PipeObject& object) {
    const NamesGuard guard(ServedName::namesMutex());
    const bool waits = object.served != nullptr && !object.isClosed() && !object.connected;
    return waits ? object.served->queue() : nullptr;
}

// ---- Accepting ----

/// Waits for a client on one instance. Its log lines are those of a named pipe's calls: a result at once, or a pending
/// one that is waited for.
class Accepting {
  public:
    explicit Accepting(PipeObject& object) : object_(object) {}

    int run(int timeoutMs) {
        const Deadline deadline = Deadline::after(timeoutMs);
        if (hasLostFiles(false)) keepName();
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
        std::shared_ptr<Descriptor> queue;
        bool isFormer = false;
        {
            const NamesGuard guard(ServedName::namesMutex());
            if (object_.isClosed()) return SystemError::IO_PENDING;  // the wait finds the close at once
            if (object_.connected) return SystemError::PIPE_CONNECTED;
            queue = object_.served->queue();
            isFormer = object_.served->isFormer(queue);
        }
        for (;;) {
            int error = 0;
            Descriptor client = takeFrom(*queue, error);
            if (client.isOpen()) return enterConnection(std::move(client));
            const bool isEmpty = error == EAGAIN;
            if (isFormer && isEmpty && leave(queue)) return takeClient();
            if (isEmpty || object_.isClosed()) return SystemError::IO_PENDING;
            if (error != EINTR && error != ECONNABORTED) return SystemError::fromErrno(error);
        }
    }

    /// One call of accept4, so that hasClient() sees the client all the time.
    Descriptor takeFrom(const Descriptor& queue, int& error) {
        const std::lock_guard lock(object_.taking);
        object_.accepting = true;  // before the client leaves the queue
        Descriptor client(::accept4(queue.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.isOpen()) return client;
        error = errno;
        object_.accepting = false;
        return client;
    }

    /// False after a close.
    bool leave(const std::shared_ptr<Descriptor>& queue) {
        const NamesGuard guard(ServedName::namesMutex());
        if (object_.isClosed()) return false;
        object_.served->leaveQueue(queue);
        return true;
    }

    int enterConnection(Descriptor socket) {
        LocalSocket::reserveSendBuffer(socket.get());
        const NamesGuard guard(ServedName::namesMutex());
        if (object_.isClosed()) return SystemError::IO_PENDING;
        object_.socket = std::move(socket);
        object_.connected = true;
        object_.served->instanceConnected(std::move(object_.event));
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
        while (error == SystemError::IO_PENDING) {
            const WaitResult waited = waitOnQueue(deadline);
            if (object_.isClosed()) {
                error = SystemError::OPERATION_ABORTED;
            } else if (waited == WaitResult::NOTICED) {
                keepName();
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

    /// NOTICED: the name's files may have been removed, or a lost name is due to be tried again.
    WaitResult waitOnQueue(const Deadline& deadline) {
        const std::shared_ptr<Descriptor> queue = queueOf(object_);
        // Without a queue the object is closed; its event is all there is to wait for.
        const int fd = queue != nullptr ? queue->get() : -1;
        int watch = -1;
        bool isLost = false;
        {
            const NamesGuard guard(ServedName::namesMutex());
            watch = object_.served->watch();
            isLost = object_.served->isToBeTakenAgain();
        }
        const bool isShortened = isLost && (deadline.isUnlimited() || deadline.left() > RETRY_TIME);
        const WaitResult waited = object_.waitOn(fd, POLLIN, isShortened ? Deadline::after(RETRY_MS) : deadline, watch);
        return waited == WaitResult::TIMED_OUT && isShortened ? WaitResult::NOTICED : waited;
    }

    bool hasLostFiles(bool thorough) {
        const NamesGuard guard(ServedName::namesMutex());
        ServedName& name = *object_.served;
        return !object_.isClosed() && (name.isToBeTakenAgain() || name.hasLostFiles(thorough));
    }

    /// Takes the name anew if its files were removed, and says so.
    void keepName() {
        NameNews news;
        {
            NamesGuard guard(ServedName::namesMutex());
            object_.served->clearWatch();
        }
        if (!hasLostFiles(true)) return;
        waitForClose(REMOVAL_MS);
        {
            const NamesGuard guard(ServedName::namesMutex());
            if (!object_.isClosed()) news = object_.served->takeAgain();
        }
        if (news.kind == NameNews::Kind::REMOVED) PipeLog::nameRemoved(news.path, news.error);
        if (news.kind == NameNews::Kind::TAKEN_AGAIN) PipeLog::nameTakenAgain(news.path);
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

    void pause() const { waitForClose(BackEnd::ACCEPT_PAUSE_MS); }
    void waitForClose(int timeoutMs) const { object_.waitOn(-1, 0, Deadline::after(timeoutMs)); }

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
    return ServedName::addInstance(std::move(address), direction, first, object.served, object.event);
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
    if (!addInstance(sibling, *object, error)) {
        error = addInstance(path, first, *object);
        if (error == SystemError::ACCESS_DENIED || error == SystemError::FILE_NOT_FOUND) Refusal::logOfServer(path);
    }
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
    const std::shared_ptr<Descriptor> queue = queueOf(object);
    if (queue == nullptr) return false;
    pollfd descriptor{queue->get(), POLLIN, 0};
    const bool isQueued = ::poll(&descriptor, 1, 0) > 0 && (descriptor.revents & POLLIN) != 0;
    // In this order: a client leaves the queue after the mark is set. The mark alone may be of a try that finds nobody.
    if (isQueued || !object.accepting) return isQueued;
    const std::lock_guard lock(object.taking);
    return object.accepting;
}

}  // namespace BackEnd

}  // namespace Quovane::Internal::Qvtp
