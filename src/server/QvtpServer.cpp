#include <qvtp/server/QvtpServer.h>

#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/QvPipe.h>
#include <qvtp/io/QvPipeException.h>

#include "common/CurrentException.h"
#include "common/System.h"
#include "io/PipeControl.h"
#include "logging/Log.h"
#include "server/RequestWorker.h"
#include "server/ServerSettings.h"
#include "server/ThreadUse.h"

#include <Poco/Mutex.h>
#include <Poco/ThreadPool.h>

#include <atomic>
#include <chrono>

namespace Quovane::Qvtp {

using namespace Quovane::Internal::Qvtp;
using Io::IllegalStateException;
using Io::InterruptedException;
using Io::QvPipe;
using Io::QvPipeException;
using Io::ServerQvPipe;

namespace {

constexpr int READ_AND_WRITE = 1;  // the access mode of a server that answers
constexpr int FAILURE_PAUSE_MS = 100;
constexpr int STOP_CHECKS = 40;
constexpr int STOP_CHECK_MS = 100;
constexpr auto FOR_EVER = std::chrono::hours(24 * 365);  // the end of all time is more than waits can be given

/// Workers whose handler never came back. They are not deleted, since their threads still use them, and stay in this
/// list so that they do not look lost. It takes no memory: a stop must not fail.
void abandon(std::unique_ptr<RequestWorker> worker) {
    static std::atomic<RequestWorker*> abandoned{nullptr};
    RequestWorker* const last = worker.release();
    last->setNextAbandoned(abandoned);
    while (!abandoned.compare_exchange_weak(last->nextAbandoned(), last)) {
    }
}

/// Whoever waits for a thread, or for the end of one, waits no more.
void endDraining(ServerSettings& settings, const std::shared_ptr<ThreadUse>& threads) {
    settings.drain.end();
    if (const auto use = std::atomic_load(&threads)) use->stop();
}

/// An accept that fails may have taken its client all the same, which `pipe` holds then: what failed is the place for
/// the next one.
void acceptInto(ServerQvPipe& serverPipe, QvPipe& pipe, const std::string& pipeName) {
    try {
        serverPipe.accept(pipe);
    } catch (InterruptedException&) {
        throw;
    } catch (QvPipeException& e) {
        logError([&] {
            return "QvtpServer failed to accept a QvPipe on the named pipe " + pipeName + ". " + e.getMessage();
        });
    }
}

}  // namespace

/// Stops the workers when the accept loop ends, however it does.
class QvtpServer::StopGuard {
  public:
    explicit StopGuard(QvtpServer& server) : server_(server) {}
    ~StopGuard() {
        server_.running_ = false;
        server_.settings_->drain.acceptHasEnded();
        server_.stopWorkers();
    }
    StopGuard(const StopGuard&) = delete;
    StopGuard& operator=(const StopGuard&) = delete;

  private:
    QvtpServer& server_;
};

struct QvtpServer::IntegerOptions {
    /// Where an option is kept; null for one that is not an integer.
    static std::atomic<int> QvtpServer::*fieldOf(ServerOptions option) {
        switch (option) {
            case ACCESS_MODE:
                return &QvtpServer::accessFlag_;
            case MAX_REQUEST_PROCESSORS:
                return &QvtpServer::maxRequestProcessors_;
            case ACCEPT_TIMEOUT:
                return &QvtpServer::acceptTimeout_;
            case IDLE_TIMEOUT:
                return &QvtpServer::idleTimeout_;
            case RECEIVE_TIMEOUT:
                return &QvtpServer::receiveTimeout_;
            case BUFFER_SIZE:
                return &QvtpServer::bufferSize_;
            default:
                return nullptr;
        }
    }
};

/// Reports to the destructor that a thread is in run().
class QvtpServer::RunGuard {
  public:
    explicit RunGuard(QvtpServer& server) : server_(server) {
        std::lock_guard<std::mutex> guard(server_.runMutex_);
        ++server_.activeRuns_;
    }
    ~RunGuard() {
        std::lock_guard<std::mutex> guard(server_.runMutex_);
        --server_.activeRuns_;
        server_.runEnded_.notify_all();
    }
    RunGuard(const RunGuard&) = delete;
    RunGuard& operator=(const RunGuard&) = delete;

  private:
    QvtpServer& server_;
};

QvtpServer::QvtpServer(const std::string& pipeName, int accessMode)
    : pipeName_(pipeName),
      writable_(accessMode == READ_AND_WRITE),
      settings_(std::make_unique<ServerSettings>()),
      mutex_(std::make_unique<Poco::Mutex>()) {
    setOption(ACCESS_MODE, accessMode);
    try {
        serverPipe_ = std::make_unique<ServerQvPipe>(pipeName_, true, writable_);
        logDebug([&] { return "QvTpServer is using Pipe " + pipeName_; });
    } catch (QvPipeException& e) {
        logError(
            [&] { return "Failed to create the QvtpServer with the named pipe " + pipeName_ + ". " + e.getMessage(); });
    }
}

QvtpServer::~QvtpServer() {
    destroying_ = true;  // for a run() that has begun and does not accept yet
    shutdown();
    std::unique_lock<std::mutex> lock(runMutex_);
    runEnded_.wait(lock, [this] { return activeRuns_ == 0; });
}

void QvtpServer::setOption(ServerOptions option, int value) {
    if (const auto field = IntegerOptions::fieldOf(option)) {
        // The access flag is true whatever is set: the constructor's access mode has decided the direction.
        this->*field = option == ACCESS_MODE ? 1 : value;
        return;
    }
    logError("Attempt to set a non integer option.");
}

void QvtpServer::setOption(ServerOptions option, const std::string& value) {
    if (option != SERVER_NAME) {
        logError("Attempt to set a non string option.");
        return;
    }
    Poco::Mutex::ScopedLock lock(*mutex_);
    serverName_ = value;
}

int QvtpServer::getIntegerOption(ServerOptions option) const {
    if (const auto field = IntegerOptions::fieldOf(option)) return this->*field;
    logError("Attempt to get a non integer option.");
    return -1;
}

std::string QvtpServer::getStringOption(ServerOptions option) const {
    if (option != SERVER_NAME) {
        logError("Attempt to get a non string option.");
        return {};
    }
    Poco::Mutex::ScopedLock lock(*mutex_);
    return serverName_;
}

void QvtpServer::setUnhandledExceptionPolicy(UnhandledExceptionPolicy policy) {
    unhandledExceptionPolicy_ = policy;
}

void QvtpServer::setLimits(const Limits& limits) {
    settings_->setLimits(limits);
}

void QvtpServer::setMakeRoom(bool makeRoom) {
    settings_->makesRoom = makeRoom;
}

void QvtpServer::setHandler(QvtpHandler* handler) {
    handler_ = handler;
}

QvtpHandler* QvtpServer::getHandler() const {
    return handler_;
}

bool QvtpServer::isRunning() const {
    return running_;
}

void QvtpServer::shutdown() {
    if (!running_.exchange(false)) {
        if (settings_->drain.isUnderWay()) endDraining(*settings_, threads_);
        return;
    }
    std::atomic_load(&threads_)->stop();
    serverPipe_->close();
}

/// An accept that only looks for a client shows one for a moment. A client that is there stays.
static bool hasUnacceptedClient(const Io::ServerQvPipe& pipe) {
    constexpr int LOOKS = 10;
    for (int i = 0; i < LOOKS; ++i) {
        if (!Internal::Qvtp::PipeControl::hasUnacceptedClient(pipe)) return false;
        Internal::Qvtp::System::sleepMs(1);
    }
    return true;
}

bool QvtpServer::drain(int milliseconds) {
    const auto now = Drain::Clock::now();
    const auto deadline = milliseconds > 0 ? now + std::chrono::milliseconds(milliseconds) : now + FOR_EVER;
    Drain& draining = settings_->drain;
    if (!draining.begin()) return false;  // before all else: a run() that begins meanwhile finds it
    const bool wasRunning = running_.exchange(false);
    if (serverPipe_ != nullptr) {
        if (hasUnacceptedClient(*serverPipe_)) draining.noteCutOff();  // the close hangs up on it
        serverPipe_->close();
    }
    bool isDone = true;
    if (wasRunning) {
        {
            Poco::Mutex::ScopedLock lock(*mutex_);
            for (auto& [name, worker] : workers_) worker->drain();
        }
        // A shutdown() may have cut off the requests that the workers have ended with.
        isDone = draining.awaitEndOfAccept(deadline) && std::atomic_load(&threads_)->awaitIdle(deadline) &&
                 !draining.hasCutOff() && draining.isUnderWay();
    }
    endDraining(*settings_, threads_);
    return isDone;
}

/// Not asked of the pool: while it stops its threads it holds its own lock until they have ended, and one of them may
/// be asking.
int QvtpServer::idleRequestProcessors() const {
    const auto threads = std::atomic_load(&threads_);
    return threads != nullptr ? threads->available() : 0;
}

int QvtpServer::totalRequestProcessors() const {
    Poco::Mutex::ScopedLock lock(*mutex_);
    return static_cast<int>(workers_.size());
}

void QvtpServer::run() {
    const RunGuard active(*this);
    if (serverPipe_ == nullptr) {
        logError([&] { return "QvtpServer " + pipeName_ + " cannot run without its named pipe."; });
        return;
    }
    if (settings_->drain.hasBegun()) {
        logInfo([&] { return "QvtpServer " + pipeName_ + " is stopped."; });
        return;
    }
    logDebug([&] { return "QvTpServer is running on Pipe " + pipeName_; });
    try {
        initializeThreadPool();
    } catch (...) {
        logError([&] {
            return "QvtpServer " + pipeName_ + " cannot run: its threads could not be started. " +
                   describeCurrentException();
        });
        serverPipe_->close();  // gives up the name, so that clients do not wait for a server without threads
        return;
    }
    serverPipe_->setAcceptTimeout(acceptTimeout_);
    running_ = true;
    if (destroying_ || settings_->drain.hasBegun()) running_ = false;
    {
        const StopGuard stopAtTheEnd(*this);
        acceptLoop();
    }
    logSummary();
    logInfo([&] { return "QvtpServer " + pipeName_ + " is stopped."; });
}

/// Whatever fails on the way of one connection costs that connection and no more.
void QvtpServer::acceptLoop() {
    const auto logInterruption = [&](const std::string& message) {
        logDebug(
            [&] { return "QvtpServer " + pipeName_ + " was interrupted. The QvtpServer will shutdown. " + message; });
    };
    while (running_) {
        try {
            auto pipe = std::make_unique<QvPipe>();
            acceptInto(*serverPipe_, *pipe, pipeName_);
            if (pipe->isBound()) assignToWorkerThread(std::move(pipe));
        } catch (InterruptedException& e) {
            logInterruption(e.getMessage());
            return;
        } catch (IllegalStateException& e) {
            logInterruption(e.getMessage());  // a shutdown between the test and the accept has closed the server pipe
            return;
        } catch (...) {
            logError([&] {
                return "QvtpServer " + pipeName_ + " could not serve a connection. " + describeCurrentException();
            });
            // What is lacking may be lacking for long: the loop must not spin.
            threads_->pause(ThreadUse::Clock::now() + std::chrono::milliseconds(FAILURE_PAUSE_MS));
        }
    }
}

void QvtpServer::stopWorkers() {
    requestStop();
    threadPool_->stopAll();
    endUnbegunWorkers();
    waitForWorkers();
    deleteWorkers();
    threads_->forget();
}

void QvtpServer::requestStop() {
    Poco::Mutex::ScopedLock lock(*mutex_);
    for (auto& [name, worker] : workers_) {
        if (worker->isRunning()) worker->stop();
    }
}

/// A worker that was given to a thread just before the stop: the pool takes it back before its first step.
void QvtpServer::endUnbegunWorkers() {
    Poco::Mutex::ScopedLock lock(*mutex_);
    for (auto& [name, worker] : workers_) worker->endUnlessBegun();
}

bool QvtpServer::hasRunningWorker() const {
    Poco::Mutex::ScopedLock lock(*mutex_);
    for (const auto& [name, worker] : workers_) {
        if (worker->isRunning()) return true;
    }
    return false;
}

void QvtpServer::waitForWorkers() {
    for (int check = 0; check < STOP_CHECKS && hasRunningWorker(); ++check) System::sleepMs(STOP_CHECK_MS);
}

void QvtpServer::deleteWorkers() {
    Poco::Mutex::ScopedLock lock(*mutex_);
    for (auto& entry : workers_) {
        WorkerPtr& worker = entry.second;
        if (worker->isRunning()) {
            logInfo([&] { return "************* Worker thread not deleted: " + worker->getName(); });
            abandon(std::move(worker));
        } else {
            worker.reset();
        }
    }
    workers_.clear();
}

QvtpServer::Statistics QvtpServer::statistics() const {
    Statistics now;
    now.posts = totalPosts_;
    now.notifications = totalNotifies_;
    now.connections = totalWorkersUsed_;
    now.endedWorkers = totalIdleTimeouts_;
    now.waitsForThread = totalWaitsForThread_;
    now.peakWorkers = peakThreads_;
    return now;
}

void QvtpServer::logSummary() const {
    logDebug([&] {
        const Statistics all = statistics();
        return text("\nQvtpServer ", pipeName_, " Summary:\n",                    //
                    "    Total POST requests:       ", all.posts, "\n",           //
                    "    Total NOTIFY requests:     ", all.notifications, "\n",   //
                    "    Total workers used:        ", all.connections, "\n",     //
                    "    Total idle timeouts:       ", all.endedWorkers, "\n",    //
                    "    Total waits for thread:    ", all.waitsForThread, "\n",  //
                    "    Peak number of threads:    ", all.peakWorkers, "\n");
    });
}

}  // namespace Quovane::Qvtp
