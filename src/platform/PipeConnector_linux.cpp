#include "platform/PipeConnector_linux.h"

#include "common/System.h"
#include "platform/Interruption_linux.h"
#include "platform/LocalSocket_linux.h"
#include "platform/PipeLog.h"
#include "platform/PipePlatform.h"
#include "platform/Refusal_linux.h"
#include "platform/SystemError_linux.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr int RETRY_MS = 5;
constexpr int SERVER_READS = 1;
constexpr int SERVER_WRITES = 2;

}  // namespace

PipeConnector::PipeConnector(const std::string& path, bool readable, bool writable, int timeoutMs)
    : path_(path),
      readable_(readable),
      writable_(writable),
      timeoutMs_(timeoutMs),
      deadline_(Deadline::after(timeoutMs)) {}

Descriptor PipeConnector::takeSocket() {
    return std::move(socket_);
}

int PipeConnector::connect() {
    error_ = address_.resolve(path_, PipeAddress::Directory::MUST_EXIST);
    if (error_ != SystemError::NONE) return reportFailure();
    for (;;) {
        Attempt outcome = attempt();
        if (outcome == Attempt::BUSY) outcome = waitInQueue();
        switch (outcome) {
            case Attempt::CONNECTED:
                return ConnectResult::CONNECTED;
            case Attempt::DENIED:
                return reportDenial();
            case Attempt::FAILED:
                return reportFailure();
            case Attempt::BUSY:
                break;
            case Attempt::NOT_LISTENING:
                // The server holds the name and is between two instances, or about to listen or to go.
                beginWaiting();
                System::sleepMs(RETRY_MS);
                break;
        }
        if (deadline_.isOver()) return reportTimeout();
    }
}

PipeConnector::Attempt PipeConnector::attempt() {
    if (waiting_ && !address_.isStillThere()) return fail(SystemError::FILE_NOT_FOUND);
    const Service service = findService();
    switch (service.state) {
        case Service::State::DENIED:
            return Attempt::DENIED;
        case Service::State::STARTING:
            return Attempt::NOT_LISTENING;
        case Service::State::NONE:
            return fail(SystemError::FILE_NOT_FOUND);
        case Service::State::UNKNOWN:
            return fail(service.error);
        case Service::State::SERVED:
            break;
    }
    // Tested before connecting: a client of the wrong kind must not take the place in the queue.
    if (!allows(service.direction)) return Attempt::DENIED;
    socket_ = LocalSocket::create();
    if (!socket_.isOpen()) return fail(SystemError::fromErrno(errno));
    LocalSocket::reserveSendBuffer(socket_.get());
    return attemptConnect(service.foreign);
}

PipeConnector::Attempt PipeConnector::attemptConnect(bool foreign) {
    const bool connected = LocalSocket::connect(socket_.get(), address_.socketPath(address_.socketFile()));
    if (connected && LocalSocket::makeBlocking(socket_.get())) return Attempt::CONNECTED;
    const int error = errno;
    switch (error) {
        case EAGAIN:
            return Attempt::BUSY;
        case EACCES:
            return Attempt::DENIED;
        case ECONNREFUSED:
        case ENOENT:
            return foreign ? fail(SystemError::FILE_NOT_FOUND) : Attempt::NOT_LISTENING;
        default:
            return fail(SystemError::fromErrno(error));
    }
}

PipeConnector::Service PipeConnector::findService() const {
    const Descriptor file = address_.openLockFile(O_RDONLY);
    if (!file.isOpen()) {
        const int error = errno;
        if (error == ENOENT) return findForeignService();
        if (error == EACCES) return {Service::State::DENIED};
        return {Service::State::UNKNOWN, 0, false, SystemError::fromErrno(error)};
    }
    struct flock query {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    // A question that never takes the lock, so that a server starting at this moment is not disturbed.
    const auto ask = [&] { return ::fcntl(file.get(), F_OFD_GETLK, &query); };
    const bool isLocked = uninterrupted(ask) == 0 && query.l_type != F_UNLCK;
    if (!isLocked) return {Service::State::NONE};
    char direction = 0;
    const auto read = [&] { return ::pread(file.get(), &direction, 1, 0); };
    if (uninterrupted(read) != 1) return {Service::State::STARTING};
    return {Service::State::SERVED, direction - '0'};
}

PipeConnector::Service PipeConnector::findForeignService() const {
    if (!address_.hasSocketFile()) return {Service::State::NONE};
    return {Service::State::SERVED, SERVER_READS | SERVER_WRITES, true};
}

bool PipeConnector::allows(int direction) const {
    return (!readable_ || (direction & SERVER_WRITES) != 0) && (!writable_ || (direction & SERVER_READS) != 0);
}

PipeConnector::Attempt PipeConnector::fail(int error) {
    error_ = error;
    return Attempt::FAILED;
}

int PipeConnector::reportFailure() const {
    // Whoever has begun to wait waits for a server that went away.
    if (waiting_ && error_ == SystemError::FILE_NOT_FOUND) return reportTimeout();
    if (error_ == SystemError::ACCESS_DENIED) return reportDenial();
    PipeLog::connectFailed(error_);
    return ConnectResult::CANNOT_OPEN;
}

int PipeConnector::reportDenial() const {
    Refusal::logOfClient(path_);
    return ConnectResult::ACCESS_DENIED;
}

int PipeConnector::reportTimeout() const {
    PipeLog::connectTimedOut(path_, timeoutMs_);
    return ConnectResult::TIMED_OUT;
}

void PipeConnector::beginWaiting() {
    if (!waiting_) PipeLog::waitsForInstance();
    waiting_ = true;
}

/// BUSY when the time is up or the queue went away; the next attempt finds out which.
PipeConnector::Attempt PipeConnector::waitInQueue() {
    beginWaiting();
    switch (LocalSocket::connectBefore(socket_.get(), address_.socketPath(address_.socketFile()), deadline_)) {
        case LocalSocket::QueueResult::CONNECTED:
            return Attempt::CONNECTED;
        case LocalSocket::QueueResult::NOT_CONNECTED:
            return Attempt::BUSY;
        default:
            return fail(SystemError::fromErrno(errno));
    }
}

}  // namespace Quovane::Internal::Qvtp
