#include "server/RequestWorker.h"

#include <qvtp/io/QvPipeException.h>
#include <qvtp/server/QvtpServer.h>

#include "common/CurrentException.h"
#include "io/PipeControl.h"
#include "logging/Log.h"
#include "message/InputBuffer.h"
#include "message/MessageBounds.h"
#include "message/StreamUtil.h"
#include "server/LimitedInput.h"
#include "server/ServerSettings.h"

#include <Poco/Thread.h>

#include <algorithm>
#include <new>
#include <utility>

// How a worker shares its thread: waiting for a client, parting from it, and its end. What it does with a request is in
// RequestWorkerDispatch.cpp.

namespace Quovane::Internal::Qvtp {

using namespace std::chrono_literals;
using Quovane::Io::QvPipe;
using Quovane::Io::QvPipeException;

namespace {

constexpr int REST_TIMEOUT_MS = 1000;  // for bytes that are there already
constexpr auto TURN = 5ms;             // the least that a client has of a worker while others wait

/// Whole milliseconds up to a moment, at least one.
int millisecondsUntil(RequestWorker::Clock::time_point end, RequestWorker::Clock::time_point now) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now).count();
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left, 1));
}

/// As the pool names a thread. The pool itself would take memory for the name when it has given the thread away:
/// without that memory the thread would never come back.
void nameThread(const std::string& name) {
    Poco::Thread* const thread = Poco::Thread::current();
    if (thread == nullptr) return;
    try {
        thread->setName(name + " (" + thread->getName() + ")");
    } catch (const std::bad_alloc&) {
        // It keeps the name that it has in the pool.
    }
}

}  // namespace

RequestWorker::RequestWorker(std::unique_ptr<QvPipe> pipe, QvtpServer* server, const std::string& name,
                             std::shared_ptr<ThreadUse> threads)
    : server_(server),
      pipe_(std::move(pipe)),
      name_(name),
      fullName_(server_->pipeName_ + "/" + name),
      threads_(std::move(threads)) {}

RequestWorker::~RequestWorker() {
    logDebug([&] { return "Deleting worker " + fullName_; });
    pipe_.reset();  // before the buffers that its streams use
}

void RequestWorker::stop() {
    logDebug([&] { return "Stopping worker " + fullName_; });
    stop_ = true;
    if (pipe_ != nullptr) pipe_->close();
}

void RequestWorker::ask() {
    asked_ = true;
    nudge();
}

void RequestWorker::nudge() {
    PipeControl::wake(*pipe_);
}

/// The end of reading ends a wait that cannot be woken. A request into which it falls must not reach the handler: the
/// wait is marked as ended before, so that its worker takes nothing but whole requests from then on. A worker that is
/// not waiting ends the reading itself. Where there is no end of reading every wait can be woken.
void RequestWorker::drain() {
    drain_ = true;
    if (pipe_ == nullptr) return;
    Wait plain = Wait::PLAIN;
    Wait resting = Wait::RESTING;
    const bool isWaiting =
        wait_.compare_exchange_strong(plain, Wait::ENDED) || wait_.compare_exchange_strong(resting, Wait::ENDED);
    if (isWaiting) PipeControl::endReading(*pipe_);
    nudge();
}

void RequestWorker::releaseIfDeserted() {
    if (!deserted_ || pipe_ == nullptr || !PipeControl::peerHasClosed(*pipe_)) return;
    pipe_.reset();
    inputBuffer_.reset();
    outputBuffer_.reset();
}

/// An exception of the handler's own may leave (see QvtpHandler): such a worker stays in the map as running, and the
/// server reports it when it stops. Whatever else fails costs the connection and nothing more.
void RequestWorker::run() {
    /// Goes after this object may have been deleted.
    const struct ThreadEnd {
        std::shared_ptr<ThreadUse> threads;
        int generation = threads->generation();
        ~ThreadEnd() { threads->end(generation); }
    } threadEnd{threads_};
    begun_ = true;
    nameThread(fullName_);
    try {
        prepareStreams();
        serveRequests();
    } catch (...) {
        if (handlerFailed_) {
            noteLeft(isDraining() && hasInput());
            deserted_ = true;
            throw;
        }
        logError([&] { return "Failed to serve " + fullName_ + ". " + describeCurrentException(); });
    }
    logDebug([&] { return "Closing QvPipe (" + fullName_ + "). "; });
    pipe_->close();
    running_ = false;  // the last step: from here on the server may delete this object
}

void RequestWorker::prepareStreams() {
    idleTimeoutMs_ = server_->getIntegerOption(QvtpServer::IDLE_TIMEOUT);
    receiveTimeoutMs_ = server_->getIntegerOption(QvtpServer::RECEIVE_TIMEOUT);
    limits_ = server_->settings_->limits();
    makesRoom_ = server_->settings_->makesRoom;
    hasLimits_ = LimitedInput::isAny(limits_);
    const int bufferSize = std::max(server_->getIntegerOption(QvtpServer::BUFFER_SIZE), 1);
    inputBuffer_.reset(new char[static_cast<std::size_t>(bufferSize)]);
    pipe_->getInputStream()->rdbuf()->pubsetbuf(inputBuffer_.get(), bufferSize);
    if (server_->accessFlag_ == 0 || !server_->writable_) return;
    outputBuffer_.reset(new char[static_cast<std::size_t>(bufferSize)]);
    pipe_->getOutputStream()->rdbuf()->pubsetbuf(outputBuffer_.get(), bufferSize);
}

void RequestWorker::serveRequests() {
    endOfTurn_ = Clock::now() + TURN;
    std::istream& in = *pipe_->getInputStream();
    while (!stop_) {
        Next next = Next::REQUEST;
        if (!tryRead([&] { next = awaitNext(); })) return;
        switch (next) {
            case Next::REQUEST:
                if (!serveRequest(in, idleTimeoutMs_)) {
                    noteLeft(isDraining() && hasInput());
                    return;
                }
                break;
            case Next::SILENCE:
                if (staysSilent()) return;
                break;
            case Next::GIVE_UP:
                giveUp();
                return;
        }
    }
}

/// Waits in a way that takes nothing when it times out: that proves that not even a part of a request has come. A
/// worker whose request ended while a connection waited can be asked for its thread until its client's next request; a
/// client that was silent before anybody waited is not cut off.
RequestWorker::Next RequestWorker::awaitNext() {
    if (asked_) asked_ = false;  // a store that others see at once costs more than the look
    candidate_ = served_ && isConnectionWaiting();
    const bool givesUp = isAskedToGiveUp(true);
    // A look at the clock costs as much as a hundred instructions: not where the next request is there already.
    if (!givesUp && pipe_->getInputStream()->rdbuf()->in_avail() > 0) return Next::REQUEST;
    const auto now = Clock::now();
    waitBegin_ = now;
    if (givesUp) return Next::GIVE_UP;
    const bool unlimited = idleTimeoutMs_ <= 0;  // below 0 it is a time that nobody waits for the end of
    const auto idleEnd = unlimited ? Clock::time_point::max() : now + std::chrono::milliseconds(idleTimeoutMs_);
    if (makesRoom_ && served_) silentSince_ = now;
    wait_ = candidate_ ? Wait::RESTING : Wait::PLAIN;
    const Next next = awaitInput(idleEnd, now);
    if (wait_.exchange(Wait::NONE) == Wait::ENDED) endReading();  // perhaps before drain() comes to it
    // What has come by then is served on that way too, and the end of reading is no end of the client's.
    return drain_ ? Next::GIVE_UP : next;
}

/// `now`: read a moment ago.
RequestWorker::Next RequestWorker::awaitInput(Clock::time_point idleEnd, Clock::time_point now) {
    for (;; now = Clock::now()) {
        if (isAskedToGiveUp(false)) return Next::GIVE_UP;
        if (now >= idleEnd) return Next::SILENCE;
        const auto end = endOfWait(idleEnd);
        const int timeoutMs = end == Clock::time_point::max() ? 0 : millisecondsUntil(end, now);
        const auto input = PipeControl::awaitInput(*pipe_, timeoutMs, candidate_ || makesRoom_);
        if (input == PipeControl::Input::THERE) return Next::REQUEST;
    }
}

/// Also one that the accept thread has not come to yet. The system is asked only when all threads are busy.
bool RequestWorker::isConnectionWaiting() const {
    return giveUp_ || (threads_->available() == 0 && PipeControl::hasClient(*server_->serverPipe_));
}

/// `requestEnded`: whether that was just now. Later only one worker gives up for each connection that waits: the one
/// that was asked, or the first whose turn ends.
bool RequestWorker::isAskedToGiveUp(bool requestEnded) {
    if (readingEnded_ || drain_) return true;
    if (!(candidate_ || makesRoom_) || !giveUp_) return false;
    if (asked_.exchange(false)) return true;
    return candidate_ && Clock::now() >= endOfTurn_.load() && (threads_->takeWanted() || requestEnded);
}

RequestWorker::Clock::time_point RequestWorker::endOfWait(Clock::time_point idleEnd) const {
    const Clock::time_point endOfTurn = endOfTurn_;
    return candidate_ && giveUp_ && Clock::now() < endOfTurn ? std::min(endOfTurn, idleEnd) : idleEnd;
}

void RequestWorker::logInterruption(const std::string& message) const {
    logDebug([&] { return "InterruptedException - " + fullName_ + ". " + message; });
}

bool RequestWorker::hasInput() const {
    return pipe_->getInputStream()->rdbuf()->in_avail() > 0 || PipeControl::available(*pipe_) > 0;
}

/// Soon after a request a busy client begins its next one: the end of reading is not to fall into that. False if the
/// connection has failed.
bool RequestWorker::awaitBusyClient() {
    const auto end = waitBegin_ + TURN;
    const auto await = [&] {
        auto input = PipeControl::Input::WOKEN;  // by what has been said already
        for (auto now = Clock::now(); input == PipeControl::Input::WOKEN && now < end; now = Clock::now()) {
            input = PipeControl::awaitInput(*pipe_, millisecondsUntil(end, now), true);
        }
    };
    return readingEnded_ || hasInput() || tryRead(await);
}

/// Whether what has come and not been read ends with a request. False also without the memory to look.
bool RequestWorker::hasWholeRequests() const try {
    std::string bytes(StreamUtil::unread(*pipe_->getInputStream()));
    bytes += PipeControl::peek(*pipe_);
    return MessageBounds::areWholeMessages(bytes);
} catch (const std::bad_alloc&) {
    return false;
}

/// Serves what has begun to arrive, and begins with none of it after one step of the server's wait: a client that
/// floods must not keep the thread. After another turn it parts as soon as no request has arrived in part, so that the
/// end of reading does not fall into one.
void RequestWorker::giveUp() {
    bool alive = awaitBusyClient();
    const auto begin = Clock::now();
    const auto end = begin + std::chrono::milliseconds(std::max(idleTimeoutMs_ / 10, 1));
    std::istream& in = *pipe_->getInputStream();
    while (alive && !readingEnded_ && !stop_ && hasInput()) {
        const auto now = Clock::now();
        if (now >= end || (now >= begin + TURN && hasWholeRequests())) break;
        alive = serveRequest(in, millisecondsUntil(end, now));
    }
    endReading();
    if (alive) {
        serveRest();
    } else {
        noteLeft(isDraining() && hasInput());
    }
    if (drain_) {
        logDebug([&] { return "Drained " + fullName_ + "."; });
    } else {
        logDebug([&] { return "Give up " + fullName_ + " for a new request waiting for a worker thread."; });
    }
}

void RequestWorker::beforeAnswer() {
    const bool isLast = drain_ || (giveUp_ && Clock::now() >= endOfTurn_.load());
    if (isLast && body_ != nullptr && body_->isComplete()) endReading();
}

MessageSink* RequestWorker::sink() const {
    return PipeControl::sinkOf(*pipe_);
}

void RequestWorker::endReading() {
    if (readingEnded_) return;
    readingEnded_ = true;
    PipeControl::endReading(*pipe_);
}

/// Serves what came before the end of reading. What has not come as a whole by now never will: it is dropped, and its
/// client's write has failed.
void RequestWorker::serveRest() {
    RestInput rest(takeRest());
    /// Also if the handler's own exception leaves.
    const struct End {
        RequestWorker& worker;
        const RestInput& rest;
        ~End() { worker.noteLeft(!rest.unread().empty()); }
    } end{*this, rest};
    bool alive = true;
    while (alive && !stop_ && !rest.unread().empty()) alive = serveRequest(rest, receiveTimeoutMs_, &rest);
}

/// From the moment on at which the drain begins, which is before it comes to this worker.
bool RequestWorker::isDraining() const {
    return !stop_ && server_->settings_->drain.hasBegun();  // when it is stopped, the server may be gone
}

/// A request that had begun to arrive is not served.
void RequestWorker::noteCutOff() {
    if (isDraining()) server_->settings_->drain.noteCutOff();
}

/// The connection ends with a request, and `hasMore` is whether there is more to read. What is left of the body of that
/// request does not count.
void RequestWorker::noteLeft(bool hasMore) {
    if (hasMore && (body_ == nullptr || body_->isComplete())) noteCutOff();
}

/// The bytes that the stream holds, and those that the system does.
std::string RequestWorker::takeRest() {
    std::streambuf& area = *pipe_->getInputStream()->rdbuf();
    std::string rest(static_cast<std::size_t>(std::max<std::streamsize>(area.in_avail(), 0)), '\0');
    area.sgetn(rest.data(), static_cast<std::streamsize>(rest.size()));
    std::size_t filled = rest.size();
    try {
        while (const std::size_t there = PipeControl::available(*pipe_)) {
            rest.resize(filled + there);
            const int count = pipe_->readPipe(rest.data() + filled, 0, static_cast<int>(there), REST_TIMEOUT_MS);
            if (count < 0) break;
            filled += static_cast<std::size_t>(count);
        }
    } catch (QvPipeException&) {
        // The client has gone. What it left before was read.
    }
    rest.resize(filled);
    return rest;
}

}  // namespace Quovane::Internal::Qvtp
