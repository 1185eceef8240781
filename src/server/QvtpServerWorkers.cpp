// The part of QvtpServer that gives connections to worker threads. It runs on the accept thread.

#include <qvtp/io/QvPipe.h>
#include <qvtp/server/QvtpServer.h>

#include "logging/Log.h"
#include "server/HandOver.h"
#include "server/RequestWorker.h"
#include "server/ThreadUse.h"

#include <Poco/Mutex.h>
#include <Poco/ThreadPool.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <utility>
#include <vector>

namespace Quovane::Qvtp {

using namespace Quovane::Internal::Qvtp;

namespace {

constexpr int MIN_THREADS = 3;
constexpr int DEFAULT_MAX_THREADS = 5;
constexpr int THREAD_IDLE_S = 60;

}  // namespace

void QvtpServer::initializeThreadPool() {
    const int wanted = maxRequestProcessors_;
    const int maximum = wanted == 0 ? DEFAULT_MAX_THREADS : std::max(wanted, MIN_THREADS);
    threadPool_ = std::make_shared<Poco::ThreadPool>(MIN_THREADS, maximum, THREAD_IDLE_S);
    std::atomic_store(&threads_, std::make_shared<ThreadUse>(maximum));
}

/// What the entry in the map needs is there before the thread starts: entering the worker then cannot fail.
void QvtpServer::assignToWorkerThread(std::unique_ptr<Io::QvPipe> pipe) {
    logDebug([&] { return "ServerQvPipe " + pipeName_ + " has accepted a QvPipe connection."; });
    const std::string name = "Worker-" + std::to_string(++totalWorkersUsed_);
    WorkerMap prepared;
    prepared.emplace(name, std::make_unique<RequestWorker>(std::move(pipe), this, name, std::atomic_load(&threads_)));
    freeFinishedWorkers();
    // When the server stops meanwhile, the connection goes with the worker that never started.
    HandOver handOver(*this, *prepared.begin()->second);
    if (handOver.startWorker()) handOver.enterWorker(prepared.extract(prepared.begin()));
}

/// Deletes the workers that have ended; true always. One that a handler's exception has ended stays, but keeps nothing
/// open for a client that has gone.
bool QvtpServer::freeFinishedWorkers() {
    Poco::Mutex::ScopedLock lock(*mutex_);
    for (auto entry = workers_.begin(); entry != workers_.end();) {
        if (entry->second->isRunning()) {
            entry->second->releaseIfDeserted();
            ++entry;
            continue;
        }
        ++totalIdleTimeouts_;
        logDebug([&] { return "Deleting idle worker " + entry->second->getFullName() + "."; });
        entry = workers_.erase(entry);
    }
    return true;
}

void QvtpServer::cancelBusyWorkers(bool giveUp) {
    Poco::Mutex::ScopedLock lock(*mutex_);
    for (auto& [name, worker] : workers_) worker->setGiveUp(giveUp);
    if (!giveUp) threads_->setWanted(false);
}

}  // namespace Quovane::Qvtp
