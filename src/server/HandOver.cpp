#include "server/HandOver.h"

#include "io/PipeControl.h"
#include "logging/Log.h"
#include "server/ServerSettings.h"

#include <Poco/Mutex.h>
#include <Poco/ThreadPool.h>

#include <chrono>
#include <exception>
#include <utility>

namespace Quovane::Qvtp {

using namespace Quovane::Internal::Qvtp;

namespace {

constexpr int GROWTH = 2;
constexpr std::int64_t LONG_WAIT_MS = 2001;
constexpr auto SILENCE = std::chrono::milliseconds(20);  // of a client that is asked to make room
constexpr auto LOOK = std::chrono::milliseconds(5);      // how often such a client is looked for

}  // namespace

bool QvtpServer::HandOver::startWorker() {
    const std::string& fullName = worker_.getFullName();
    std::int64_t waitedMs = 0;
    for (;;) {
        const std::uint64_t seenEnds = threads_.ends();
        const StartResult result = tryToStart();
        if (result == StartResult::STARTED) break;
        if (waitedMs == 0) logInfo([&] { return "Waiting for thread to process QvPipe worker " + fullName; });
        logDebug([&] { return "Still waiting for thread to process QvPipe worker " + fullName; });
        askForRoom();
        awaitStep(seenEnds, result == StartResult::FAILED);
        if (!mayGoOn()) return false;
        waitedMs += stepMs_;
        server_.freeFinishedWorkers();
    }
    if (waitedMs > 0) logEndOfWait(waitedMs);
    return true;
}

void QvtpServer::HandOver::logEndOfWait(std::int64_t waitedMs) const {
    ++server_.totalWaitsForThread_;
    if (waitedMs < LONG_WAIT_MS && !isDebugEnabled()) return;
    logInfo([&] { return "Done waiting for thread to process QvPipe worker " + worker_.getFullName(); });
    // The spelling is part of the interface: log readers match this text.
    logInfo("Increase the MAX_REQUEST_PROCESSORS value if this propelem persists.");
}

QvtpServer::HandOver::StartResult QvtpServer::HandOver::tryToStart() {
    Poco::ThreadPool& pool = *server_.threadPool_;
    bool counted = false;
    try {
        if (pool.available() == 0 && server_.maxRequestProcessors_ == 0) {
            threads_.grow(GROWTH);  // first: the pool has grown also when it throws afterwards
            pool.addCapacity(GROWTH);
        }
        if (pool.available() < 1) return StartResult::NO_THREAD;
        PipeControl::giveAway(*server_.serverPipe_);
        threads_.begin();
        counted = true;
        pool.start(worker_);  // without a name: see RequestWorker::run
        return StartResult::STARTED;
    } catch (const std::exception&) {
        // No thread after all: the pool has given it away, or the system has none left.
    }
    if (counted) threads_.cancel();
    return StartResult::FAILED;
}

bool QvtpServer::HandOver::mayGoOn() const {
    return server_.running_ || server_.settings_->drain.isUnderWay();
}

/// A client that is silent makes room, so that others can go on. If nobody has become silent by then, all are asked.
void QvtpServer::HandOver::askForRoom() {
    asked_ = nullptr;
    allAsked_ = false;
    if (makesRoom_ && (askTheLongestSilent() || Clock::now() < begin_ + SILENCE)) return;
    askAll();
}

void QvtpServer::HandOver::askAll() {
    allAsked_ = true;
    server_.cancelBusyWorkers(true);
    askForThread();
}

bool QvtpServer::HandOver::askTheLongestSilent() {
    Poco::Mutex::ScopedLock lock(*server_.mutex_);
    auto since = Clock::now() - SILENCE;
    RequestWorker* longest = nullptr;
    for (auto& [name, worker] : server_.workers_) {
        if (worker.get() == asked_ || worker->silentSince() > since) continue;
        since = worker->silentSince();
        longest = worker.get();
    }
    if (longest == nullptr) return false;
    asked_ = longest;
    longest->setGiveUp(true);
    longest->ask();
    return true;
}

/// Asks the worker for its thread that has had its client longest, of those whose client is silent and whose turn is
/// over. If there is none, the first whose turn ends gives up.
void QvtpServer::HandOver::askForThread() {
    Poco::Mutex::ScopedLock lock(*server_.mutex_);
    const auto now = ThreadUse::Clock::now();
    RequestWorker* longest = nullptr;
    for (auto& [name, worker] : server_.workers_) {
        if (worker->isResting() && (longest == nullptr || worker->endOfTurn() < longest->endOfTurn())) {
            longest = worker.get();
        }
    }
    if (longest != nullptr && longest->endOfTurn() <= now) {
        longest->ask();
        return;
    }
    threads_.setWanted(true);
    for (auto& [name, worker] : server_.workers_) {
        if (worker->isResting()) worker->nudge();
    }
}

/// Waits until a thread may be had, for one step at most. Meanwhile a client may have become silent for long enough, or
/// the one that was asked may have been quicker with its next request.
void QvtpServer::HandOver::awaitStep(std::uint64_t seenEnds, bool startFailed) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(stepMs_);
    if (!makesRoom_) {
        awaitThread(seenEnds, startFailed, deadline);
        return;
    }
    while (!awaitThread(seenEnds, startFailed, std::min(deadline, Clock::now() + LOOK))) {
        if (!mayGoOn() || Clock::now() >= deadline) return;
        if (asked_ != nullptr && !asked_->isAskedInVain()) continue;
        if (!askTheLongestSilent() && !allAsked_ && Clock::now() >= begin_ + SILENCE) askAll();
    }
}

/// Waits until a thread may be had. False if there is none by the deadline, or when the server stops. The pool has a
/// thread back shortly after its worker has ended, and says so to nobody: look closely then. After a start that failed
/// only a thread that is there already will do.
bool QvtpServer::HandOver::awaitThread(std::uint64_t seenEnds, bool startFailed, Clock::time_point deadline) {
    const Poco::ThreadPool& pool = *server_.threadPool_;
    bool isInTime = !startFailed || threads_.awaitEnd(seenEnds, deadline);
    while (isInTime) {
        seenEnds = threads_.ends();
        const int used = pool.used();
        if (startFailed ? pool.allocated() > used : pool.available() > 0) return true;
        const bool isReturning = used > threads_.busy();
        isInTime = isReturning ? threads_.awaitReturn(deadline) : threads_.awaitEnd(seenEnds, deadline);
    }
    return false;
}

void QvtpServer::HandOver::enterWorker(WorkerMap::node_type entry) {
    Poco::Mutex::ScopedLock lock(*server_.mutex_);
    server_.cancelBusyWorkers(false);
    auto inserted = server_.workers_.insert(std::move(entry));
    if (!inserted.inserted) std::swap(inserted.position->second, inserted.node.mapped());
    if (server_.settings_->drain.hasBegun()) worker_.drain();
    const int count = static_cast<int>(server_.workers_.size());
    server_.peakThreads_ = std::max<int>(server_.peakThreads_, count);
    logDebug([&] { return text("Activated worker thread ", worker_.getFullName(), " (", count, ")."); });
}

}  // namespace Quovane::Qvtp
