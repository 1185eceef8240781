#include "platform/ServedName_linux.h"

#include "common/System.h"
#include "platform/LocalSocket_linux.h"
#include "platform/SystemError_linux.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

/// The names that this process serves. Never freed: destructors of static objects may still close pipes.
std::vector<std::shared_ptr<ServedName>>& nameTable() {
    static auto* const table = new std::vector<std::shared_ptr<ServedName>>;
    return *table;
}

/// Gives back what it still holds, however its scope is left.
struct FreshLock : NameLock {
    FreshLock() = default;
    ~FreshLock() { giveBack(); }
    FreshLock(const FreshLock&) = delete;
    FreshLock& operator=(const FreshLock&) = delete;
};

}  // namespace

std::mutex& ServedName::namesMutex() {
    static std::mutex* const mutex = new std::mutex;
    return *mutex;
}

ServedName::ServedName(PipeAddress address, char direction)
    : address_(std::move(address)), direction_(direction), owner_(System::currentProcessId()) {}

ServedName::~ServedName() {
    if (isOwn()) lock_.giveBack();
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
        const int error = entry->addInstance(direction, event);
        if (error == SystemError::NONE) name = entry;
        return error;
    }
    table.reserve(table.size() + 1);  // entering it is the last step and must not fail
    const auto served = std::make_shared<ServedName>(std::move(address), direction);
    const int error = served->addInstance(direction, event);
    if (error != SystemError::NONE) return error;
    table.push_back(served);
    name = served;
    return SystemError::NONE;
}

int ServedName::addInstance(char direction, Descriptor& event) {
    if (direction != direction_) return SystemError::ACCESS_DENIED;
    if (!keptEvent_.isOpen()) keptEvent_ = Descriptor::event();
    if (!keptEvent_.isOpen()) return SystemError::fromErrno(errno);
    const int error = listener_ == nullptr ? renew() : SystemError::NONE;
    if (error != SystemError::NONE) return error;
    ++ends_;
    ++waiting_;
    updateBacklog();
    event = std::move(keptEvent_);
    return SystemError::NONE;
}

/// Makes what is missing: the lock, the listening socket, the directory of both. On failure everything is as it was.
int ServedName::renew() {
    PipeAddress found;
    const bool isElsewhere = lock_.isHeld() && address_.hasLostDirectory();
    int error = isElsewhere ? address_.findAgain(found) : SystemError::NONE;
    const PipeAddress& address = isElsewhere ? found : address_;
    const bool needsLock = isElsewhere || !lock_.isHeld() || address.hasLost(address.lockFile(), lock_.id());
    FreshLock lock;
    if (error == SystemError::NONE && needsLock) error = takeLock(address, lock);
    if (error == SystemError::NONE &&
        (isElsewhere || listener_ == nullptr || address.hasLost(address.socketFile(), socketId_))) {
        error = listen(address);
    }
    if (error != SystemError::NONE) return error;
    if (needsLock) {
        lock_.giveBack();
        lock_ = std::move(static_cast<NameLock&>(lock));
    }
    if (isElsewhere) address_ = std::move(found);
    hold_ = Hold::WHOLE;
    watchFiles();
    return SystemError::NONE;
}

int ServedName::takeLock(const PipeAddress& address, NameLock& lock) {
    switch (lock.take(address, direction_)) {
        case NameLock::Result::HELD:
            return SystemError::NONE;
        case NameLock::Result::REFUSED:
            return SystemError::ACCESS_DENIED;
        case NameLock::Result::HELD_BY_ANOTHER:
            if (lock_.isHeld()) hold_ = Hold::LEFT_TO_ANOTHER;
            return SystemError::ACCESS_DENIED;
        default:
            return SystemError::fromErrno(errno);
    }
}

int ServedName::listen(const PipeAddress& address) {
    const auto socket = std::make_shared<Descriptor>(LocalSocket::create());
    if (!socket->isOpen()) return SystemError::fromErrno(errno);
    formerQueues_.reserve(formerQueues_.size() + 1);
    // Bound under another name and renamed once it listens: no client meets a socket that refuses it, and a file that a
    // killed server left is replaced. The lock makes this process the only one that touches either name.
    const char* const fresh = address.freshSocketFile().c_str();
    const std::string freshPath = address.socketPath(address.freshSocketFile());
    const int backlog = std::max(waiting_ - 1, 0);
    FileId id;
    ::unlinkat(address.directory(), fresh, 0);
    if (!LocalSocket::bind(socket->get(), freshPath) || ::listen(socket->get(), backlog) != 0 ||
        !address.identify(address.freshSocketFile(), id) ||
        ::renameat(address.directory(), fresh, address.directory(), address.socketFile().c_str()) != 0) {
        const int error = errno;
        ::unlinkat(address.directory(), fresh, 0);
        return SystemError::fromErrno(error);
    }
    if (listener_ != nullptr) {
        ::shutdown(listener_->get(), SHUT_RDWR);  // no client more; those that are queued can still be taken
        formerQueues_.push_back(std::move(listener_));
    }
    listener_ = socket;
    socketId_ = id;
    backlog_ = backlog;
    return SystemError::NONE;
}

void ServedName::leaveQueue(const std::shared_ptr<Descriptor>& queue) {
    formerQueues_.erase(std::remove(formerQueues_.begin(), formerQueues_.end(), queue), formerQueues_.end());
}

/// It is a hint only: what there is no memory for is not watched.
void ServedName::watchFiles() try {
    isWatched_ = isQuiet_ = false;
    isWatched_ = watch_.addFile(address_.socketPath(address_.lockFile())) &&
                 watch_.addFile(address_.socketPath(address_.socketFile()));
    if (address_.isPathAbsolute()) watch_.addDirectory(address_.directoryPath());
} catch (const std::bad_alloc&) {
}

void ServedName::clearWatch() {
    watch_.clear();
    isQuiet_ = false;  // until a look has found what it was
}

bool ServedName::hasLostFiles(bool thorough) {
    using Look = PipeAddress::Look;
    if (listener_ == nullptr || hold_ == Hold::LEFT_TO_ANOTHER) return false;
    if (!thorough && isQuiet_ && !watch_.hasReported()) return false;
    const Look socket = address_.lookFor(address_.socketFile(), socketId_);
    const Look lock = address_.lookFor(address_.lockFile(), lock_.id());
    const bool isLost = socket == Look::LOST || lock == Look::LOST || (thorough && address_.hasLostDirectory());
    isQuiet_ = isWatched_ && !isLost && socket == Look::THERE && lock == Look::THERE;
    return isLost;
}

std::string ServedName::lostPath() const {
    if (address_.hasLostDirectory()) return address_.directoryPath();
    const bool isSocket = address_.hasLost(address_.socketFile(), socketId_);
    return address_.pathInLog(isSocket ? address_.socketFile() : address_.lockFile());
}

NameNews ServedName::takeAgain() {
    NameNews news;
    const bool wasLost = hold_ == Hold::LOST;
    const bool isLost = hasLostFiles(true);
    if (!isLost && !wasLost) return news;
    news.path = wasLost ? address_.pathInLog(address_.socketFile()) : lostPath();
    news.error = isLost ? renewOrRunShort() : SystemError::NONE;
    if (news.error == SystemError::NONE) {
        hold_ = Hold::WHOLE;
        news.kind = wasLost ? NameNews::Kind::TAKEN_AGAIN : NameNews::Kind::REMOVED;
    } else {
        if (hold_ != Hold::LEFT_TO_ANOTHER) hold_ = Hold::LOST;
        news.kind = wasLost ? NameNews::Kind::NONE : NameNews::Kind::REMOVED;
    }
    return news;
}

int ServedName::renewOrRunShort() try { return renew(); } catch (const std::bad_alloc&) {
    return SystemError::NOT_ENOUGH_MEMORY;
}

/// The kernel admits one connection more than the backlog, so that as many clients are queued as instances wait. With
/// one instance that waits, or none for a moment, it stays what it is.
void ServedName::updateBacklog() {
    const int backlog = std::max(waiting_ - 1, 0);
    if (listener_ == nullptr || backlog == backlog_) return;
    ::listen(listener_->get(), backlog);
    backlog_ = backlog;
}

void ServedName::instanceConnected(Descriptor event) {
    if (!keptEvent_.isOpen()) keptEvent_ = std::move(event);
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
    lock_.giveBack();
    auto& table = nameTable();
    const auto isThis = [this](const std::shared_ptr<ServedName>& entry) { return entry.get() == this; };
    table.erase(std::remove_if(table.begin(), table.end(), isThis), table.end());
}

void ServedName::stopListening() {
    if (listener_ == nullptr) return;
    // A file that another server has put in its place is that one's.
    if (!address_.hasLost(address_.socketFile(), socketId_)) {
        ::unlinkat(address_.directory(), address_.socketFile().c_str(), 0);
    }
    ::shutdown(listener_->get(), SHUT_RDWR);
    listener_.reset();
    formerQueues_.clear();
}

}  // namespace Quovane::Internal::Qvtp
