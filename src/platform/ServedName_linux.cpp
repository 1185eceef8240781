#include "platform/ServedName_linux.h"

#include "platform/LocalSocket_linux.h"
#include "platform/SystemError_linux.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>

namespace Quovane::Internal::Qvtp {

namespace {

using NameTable = std::map<std::string, std::shared_ptr<ServedName>>;

/// Never freed: destructors of static objects may still close pipes.
NameTable& nameTable() {
    static NameTable* const table = new NameTable;
    return *table;
}

struct flock wholeFile(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace

std::mutex& ServedName::namesMutex() {
    static std::mutex* const mutex = new std::mutex;
    return *mutex;
}

ServedName::ServedName(PipeAddress address, char direction)
    : address_(std::move(address)), direction_(direction), owner_(::getpid()) {}

int ServedName::addInstance(PipeAddress address, char direction, bool first, std::shared_ptr<ServedName>& name,
                            Descriptor& event) {
    NameTable& table = nameTable();
    const std::string key = address.key();
    auto entry = table.find(key);
    if (entry != table.end() && entry->second->owner_ != ::getpid()) {
        table.erase(entry);
        entry = table.end();
    }
    const bool isNew = entry == table.end();
    std::shared_ptr<ServedName> served =
        isNew ? std::make_shared<ServedName>(std::move(address), direction) : entry->second;
    if (!isNew && (first || served->direction_ != direction)) return SystemError::ACCESS_DENIED;

    int error = isNew ? served->takeLock() : SystemError::NONE;
    if (error == SystemError::NONE) error = served->reserveEvent();
    if (error == SystemError::NONE && served->listener_ == nullptr) error = served->listen();
    if (error != SystemError::NONE) {
        if (isNew && served->lock_.isOpen()) served->release();
        return error;
    }
    ++served->ends_;
    ++served->waiting_;
    served->updateBacklog();
    event = std::move(served->reservedEvent_);
    if (isNew) table.emplace(key, served);
    name = std::move(served);
    return SystemError::NONE;
}

int ServedName::takeLock() {
    const int fd = ::openat(address_.directory(), address_.lockFile().c_str(),
                            O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (fd < 0) return SystemError::fromErrno(errno);
    Descriptor lock(fd);
    struct flock request = wholeFile(F_WRLCK);
    if (::fcntl(fd, F_OFD_SETLK, &request) != 0) {
        const bool taken = errno == EAGAIN || errno == EACCES;
        return taken ? SystemError::ACCESS_DENIED : SystemError::fromErrno(errno);
    }
    if (::pwrite(fd, &direction_, 1, 0) != 1) return SystemError::fromErrno(errno);
    lock_ = std::move(lock);
    return SystemError::NONE;
}

int ServedName::listen() {
    Descriptor socket = LocalSocket::create();
    if (!socket.isOpen()) return SystemError::fromErrno(errno);
    // Bound under another name and renamed once it listens: no client meets a socket that refuses it, and a file that a
    // killed server left is replaced. The lock makes this process the only one that touches either name.
    const std::string fresh = address_.freshSocketFile();
    ::unlinkat(address_.directory(), fresh.c_str(), 0);
    if (!LocalSocket::bind(socket.get(), address_.socketPath(fresh)) || ::listen(socket.get(), 0) != 0 ||
        ::renameat(address_.directory(), fresh.c_str(), address_.directory(), address_.socketFile().c_str()) != 0) {
        const int error = errno;
        ::unlinkat(address_.directory(), fresh.c_str(), 0);
        return SystemError::fromErrno(error);
    }
    listener_ = std::make_shared<Descriptor>(std::move(socket));
    return SystemError::NONE;
}

int ServedName::reserveEvent() {
    if (!reservedEvent_.isOpen()) reservedEvent_ = Descriptor::event();
    return reservedEvent_.isOpen() ? SystemError::NONE : SystemError::fromErrno(errno);
}

/// The kernel admits one connection more than the backlog, so that as many clients are queued as instances wait.
void ServedName::updateBacklog() {
    if (listener_ != nullptr) ::listen(listener_->get(), std::max(waiting_ - 1, 0));
}

void ServedName::instanceConnected() {
    --waiting_;
    // The socket stays when the last waiting instance was taken: the server creates the next one at once, and clients
    // that come in between wait in the queue instead of being refused.
    updateBacklog();
}

void ServedName::endClosed(bool waiting) {
    if (owner_ != ::getpid()) return;
    if (waiting) --waiting_;
    --ends_;
    if (waiting && waiting_ == 0) stopListening();
    if (waiting && waiting_ > 0) updateBacklog();
    if (ends_ == 0) {
        stopListening();
        const std::shared_ptr<ServedName> self = nameTable()[address_.key()];
        nameTable().erase(address_.key());
        release();
    }
}

void ServedName::stopListening() {
    if (listener_ == nullptr) return;
    ::unlinkat(address_.directory(), address_.socketFile().c_str(), 0);
    ::shutdown(listener_->get(), SHUT_RDWR);
    listener_.reset();
}

/// Unlocks before it closes: a forked child may still hold the same open file description.
void ServedName::release() {
    // A client that meets the next server's lock before its direction must not take this one's for it.
    [[maybe_unused]] const int truncated = ::ftruncate(lock_.get(), 0);
    struct flock request = wholeFile(F_UNLCK);
    ::fcntl(lock_.get(), F_OFD_SETLK, &request);
    lock_.reset();
}

}  // namespace Quovane::Internal::Qvtp
