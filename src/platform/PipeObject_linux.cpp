#include "platform/PipeObject_linux.h"

#include "common/System.h"
#include "platform/SystemError_linux.h"

#include <pthread.h>
#include <sys/socket.h>

#include <cstddef>
#include <mutex>
#include <new>

namespace Quovane::Internal::Qvtp {

PipeObject::~PipeObject() {
    if (!closed) close();
}

bool PipeObject::isOwn() const {
    return owner == System::currentProcessId();
}

void PipeObject::close() {
    if (!isOwn()) return;
    if (served != nullptr) {
        std::lock_guard<std::mutex> guard(ServedName::namesMutex());
        closed = true;
        served->endClosed(!connected);
    } else {
        closed = true;
    }
    if (connected) {
        ::shutdown(socket.get(), SHUT_RDWR);
    } else if (waiters_ > 0) {
        event.signal();  // who begins to wait from now on finds the mark
    }
}

int PipeObject::accessError(bool allowed) const {
    if (!connected) return SystemError::PIPE_LISTENING;
    return allowed ? SystemError::NONE : SystemError::ACCESS_DENIED;
}

bool PipeObject::limitReceive(std::chrono::nanoseconds left) {
    // The kernel's timers are late by up to an eighth of what they are set to: what is left after them leaves room for
    // that. Set again only when it no longer fits: most waits have the same time-out as the one before.
    if (receiveLimit_ <= left * 7 / 8 && receiveLimit_ >= left / 2) return true;
    const std::chrono::nanoseconds limit = left * 3 / 4;
    if (!LocalSocket::setReceiveTimeout(socket.get(), limit)) return false;
    receiveLimit_ = limit;
    return true;
}

LocalSocket::WaitResult PipeObject::wait(short events, const Deadline& deadline, int ending) const {
    return LocalSocket::wait(socket.get(), events, ending, deadline);
}

LocalSocket::WaitResult PipeObject::waitOn(int fd, short events, const Deadline& deadline, int watch) {
    ++waiters_;  // before the mark is looked at: a close sets the mark before it looks for waiters
    const auto result =
        closed ? LocalSocket::WaitResult::SIGNALLED : LocalSocket::wait(fd, events, event.get(), deadline, watch);
    --waiters_;
    return result;
}

bool PipeObject::beginInputWait() {
    if (!wakeEvent.isOpen()) wakeEvent = Descriptor::event();
    return wake_.begin();
}

void PipeObject::endInputWait() {
    wake_.end([this] {
        if (wakeEvent.isOpen()) wakeEvent.unsignal();
    });
}

void PipeObject::wakeInputWait() {
    wake_.wake([this] {
        if (wakeEvent.isOpen()) wakeEvent.signal();
    });
}

namespace {

void lockAll() {
    ServedName::namesMutex().lock();
    pipeTable().lock();
}

void unlockAll() {
    pipeTable().unlock();
    ServedName::namesMutex().unlock();
}

PipeTable* makeTable() {
    alignas(PipeTable) static std::byte room[sizeof(PipeTable)];  // a call that comes first has no memory to ask for
    auto* const table = ::new (room) PipeTable;
    // A forked child has one thread. Were another one within the locks, they would stay locked there.
    ::pthread_atfork(lockAll, unlockAll, unlockAll);
    return table;
}

}  // namespace

PipeTable& pipeTable() {
    static PipeTable* const table = makeTable();  // never freed: destructors of static objects may close pipes
    return *table;
}

const void* printable(NativeHandle handle) {
    return reinterpret_cast<const void*>(handle);
}

}  // namespace Quovane::Internal::Qvtp
