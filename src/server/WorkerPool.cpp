// The part of QvtpServer that gives connections to worker threads. It runs on the accept thread.

#include <qvtp/io/QvPipe.h>
#include <qvtp/server/QvtpServer.h>

#include "logging/Log.h"
#include "server/RequestWorker.h"

#include <Poco/Event.h>
#include <Poco/Exception.h>
#include <Poco/Mutex.h>
#include <Poco/ThreadPool.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace Quovane::Qvtp {

using namespace Quovane::Internal::Qvtp;

namespace {

constexpr int MIN_THREADS = 3;
constexpr int DEFAULT_MAX_THREADS = 5;
constexpr int GROWTH = 2;
constexpr int THREAD_IDLE_S = 60;
constexpr std::int64_t LONG_WAIT_MS = 2001;

}  // namespace

void QvtpServer::initializeThreadPool() {
    const int wanted = maxRequestProcessors_;
    const int maximum = wanted == 0 ? DEFAULT_MAX_THREADS : std::max(wanted, MIN_THREADS);
    Poco::Mutex::ScopedLock lock(*mutex_);
    threadPool_ = std::make_shared<Poco::ThreadPool>(MIN_THREADS, maximum, THREAD_IDLE_S);
}

void QvtpServer::assignToWorkerThread(std::unique_ptr<Io::QvPipe> pipe) {
    logDebug([&] { return "ServerQvPipe " + pipeName_ + " has accepted a QvPipe connection."; });
    const std::string name = "Worker-" + std::to_string(++totalWorkersUsed_);
    auto worker = std::make_unique<RequestWorker>(std::move(pipe), this, name);
    freeFinishedWorkers();
    // When the server stops meanwhile, the connection goes with the worker that never started.
    if (waitForThread(*worker, worker->getFullName())) enterWorker(name, std::move(worker));
}

/// Starts the worker as soon as there is a thread for it. False if the server stops first.
bool QvtpServer::waitForThread(RequestWorker& worker, const std::string& fullName) {
    const int stepMs = std::max(idleTimeout_ / 10, 1);
    std::int64_t waitedMs = 0;
    while (!startWorker(worker, fullName)) {
        if (waitedMs == 0) logInfo([&] { return "Waiting for thread to process QvPipe worker " + fullName; });
        logDebug([&] { return "Still waiting for thread to process QvPipe worker " + fullName; });
        cancelBusyWorkers(true);
        if (stopping_->tryWait(stepMs) || !running_) return false;
        waitedMs += stepMs;
        freeFinishedWorkers();
    }
    if (waitedMs == 0) return true;
    ++totalWaitsForThread_;
    if (waitedMs >= LONG_WAIT_MS || isDebugEnabled()) {
        logInfo([&] { return "Done waiting for thread to process QvPipe worker " + fullName; });
        // The spelling is part of the interface: log readers match this text.
        logInfo("Increase the MAX_REQUEST_PROCESSORS value if this propelem persists.");
    }
    return true;
}

bool QvtpServer::startWorker(RequestWorker& worker, const std::string& fullName) {
    try {
        if (threadPool_->available() == 0 && maxRequestProcessors_ == 0) threadPool_->addCapacity(GROWTH);
        if (threadPool_->available() < 1) return false;
        threadPool_->start(worker, fullName);
        return true;
    } catch (Poco::Exception&) {
        return false;  // no thread after all: the pool has given it away, or the system has none left
    }
}

void QvtpServer::enterWorker(const std::string& name, WorkerPtr worker) {
    const std::string& fullName = worker->getFullName();
    Poco::Mutex::ScopedLock lock(*mutex_);
    cancelBusyWorkers(false);
    WorkerPtr& entry = workers_[name];
    entry = std::move(worker);
    const int count = static_cast<int>(workers_.size());
    peakThreads_ = std::max<int>(peakThreads_, count);
    logDebug([&] { return text("Activated worker thread ", fullName, " (", count, ")."); });
}

/// Deletes the workers that have ended; true always.
bool QvtpServer::freeFinishedWorkers() {
    Poco::Mutex::ScopedLock lock(*mutex_);
    std::vector<std::string> names;
    for (const auto& [name, worker] : workers_) names.push_back(name);
    for (const std::string& name : names) {
        const auto entry = workers_.find(name);
        if (entry->second->isRunning()) continue;
        ++totalIdleTimeouts_;
        logDebug([&] { return "Deleting idle worker " + entry->second->getFullName() + "."; });
        workers_.erase(entry);
    }
    return true;
}

void QvtpServer::cancelBusyWorkers(bool giveUp) {
    Poco::Mutex::ScopedLock lock(*mutex_);
    for (auto& [name, worker] : workers_) worker->setGiveUp(giveUp);
}

}  // namespace Quovane::Qvtp
