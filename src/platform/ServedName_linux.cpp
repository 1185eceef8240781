#include "platform/ServedName_linux.h"

#include "common/System.h"
#include "platform/Interruption_linux.h"
#include "platform/LocalSocket_linux.h"
#include "platform/SystemError_linux.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

namespace Quovane::Internal::Qvtp {

namespace {

/// The names that this process serves. Never freed: destructors of static objects may still close pipes.
std::vector<std::shared_ptr<ServedName>>& nameTable() {
    static auto* const table = new std::vector<std::shared_ptr<ServedName>>;
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
    : address_(std::move(address)), direction_(direction), owner_(System::currentProcessId()) {}

ServedName::~ServedName() {
    if (lock_.isOpen() && isOwn()) release();
}

bool ServedName::isOwn() const {
    return owner_ == System::currentProcessId();
}

int ServedName::addInstance(PipeAddress address, char direction, bool first, std::shared_ptr<ServedName>& name,
                            Descriptor& event) {
    auto& table = nameTable();
    const auto isInherited = [](const std::shared_ptr<ServedName>& entry) { return !entry->isOwn(); };
    table.erase(std::remove_if(table.begin(), table.end(), isInherited), table.end());
    for (const std::shared_ptr<ServedName>& entry : table) {
        if (!entry->address_.isSame(address)) continue;
        if (first) return SystemError::ACCESS_DENIED;
        name = entry;
        return name->addInstance(direction, event);
    }
    table.reserve(table.size() + 1);  // entering it is the last step and must not fail
    const auto served = std::make_shared<ServedName>(std::move(address), direction);
    int error = served->takeLock();
    if (error == SystemError::NONE) error = served->addInstance(direction, event);
    if (error != SystemError::NONE) return error;
    table.push_back(served);
    name = served;
    return SystemError::NONE;
}

int ServedName::addInstance(char direction, Descriptor& event) {
    if (direction != direction_) return SystemError::ACCESS_DENIED;
    int error = reserveEvent();
    if (error == SystemError::NONE && listener_ == nullptr) error = listen();
    if (error != SystemError::NONE) return error;
    ++ends_;
    ++waiting_;
    updateBacklog();
    event = std::move(reservedEvent_);
    return SystemError::NONE;
}

int ServedName::takeLock() {
    Descriptor lock = address_.openLockFile(O_RDWR | O_CREAT);
    if (!lock.isOpen()) return SystemError::fromErrno(errno);
    struct flock request = wholeFile(F_WRLCK);
    if (uninterrupted([&] { return ::fcntl(lock.get(), F_OFD_SETLK, &request); }) != 0) {
        const bool taken = errno == EAGAIN || errno == EACCES;
        return taken ? SystemError::ACCESS_DENIED : SystemError::fromErrno(errno);
    }
    if (uninterrupted([&] { return ::pwrite(lock.get(), &direction_, 1, 0); }) != 1)
        return SystemError::fromErrno(errno);
    lock_ = std::move(lock);
    return SystemError::NONE;
}

int ServedName::listen() {
    const auto socket = std::make_shared<Descriptor>(LocalSocket::create());
    if (!socket->isOpen()) return SystemError::fromErrno(errno);
    // Bound under another name and renamed once it listens: no client meets a socket that refuses it, and a file that a
    // killed server left is replaced. The lock makes this process the only one that touches either name.
    const char* const fresh = address_.freshSocketFile().c_str();
    const std::string freshPath = address_.socketPath(address_.freshSocketFile());
    ::unlinkat(address_.directory(), fresh, 0);
    if (!LocalSocket::bind(socket->get(), freshPath) || ::listen(socket->get(), 0) != 0 ||
        ::renameat(address_.directory(), fresh, address_.directory(), address_.socketFile().c_str()) != 0) {
        const int error = errno;
        ::unlinkat(address_.directory(), fresh, 0);
        return SystemError::fromErrno(error);
    }
    listener_ = socket;
    backlog_ = 0;
    return SystemError::NONE;
}

int ServedName::reserveEvent() {
    if (!reservedEvent_.isOpen()) reservedEvent_ = Descriptor::event();
    return reservedEvent_.isOpen() ? SystemError::NONE : SystemError::fromErrno(errno);
}

/// The kernel admits one connection more than the backlog, so that as many clients are queued as instances wait. With
/// one instance that waits, or none for a moment, it stays what it is.
void ServedName::updateBacklog() {
    const int backlog = std::max(waiting_ - 1, 0);
    if (listener_ == nullptr || backlog == backlog_) return;
    ::listen(listener_->get(), backlog);
    backlog_ = backlog;
}

void ServedName::instanceConnected() {
    --waiting_;
    // The socket stays when the last waiting instance was taken: the server creates the next one at once, and clients
    // that come in between wait in the queue instead of being refused.
    updateBacklog();
}

void ServedName::endClosed(bool waiting) {
    if (!isOwn()) return;
    if (waiting) --waiting_;
    --ends_;
    if (waiting && waiting_ > 0) updateBacklog();
    if (waiting_ == 0 && (waiting || ends_ == 0)) stopListening();
    if (ends_ > 0) return;
    release();
    auto& table = nameTable();
    const auto isThis = [this](const std::shared_ptr<ServedName>& entry) { return entry.get() == this; };
    table.erase(std::remove_if(table.begin(), table.end(), isThis), table.end());
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
    uninterrupted([&] { return ::ftruncate(lock_.get(), 0); });
    struct flock request = wholeFile(F_UNLCK);
    uninterrupted([&] { return ::fcntl(lock_.get(), F_OFD_SETLK, &request); });
    lock_.reset();
}

}  // namespace Quovane::Internal::Qvtp
