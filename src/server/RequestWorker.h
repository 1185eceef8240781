#pragma once

#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/QvPipe.h>
#include <qvtp/io/TimeoutException.h>

#include <qvtp/server/QvtpServer.h>

#include "common/Utf8String.h"
#include "logging/Log.h"
#include "server/RestInput.h"
#include "server/ThreadUse.h"

#include <Poco/Runnable.h>

#include <atomic>
#include <chrono>
#include <istream>
#include <memory>
#include <string>

namespace Quovane::Qvtp {
class QvtpServerRequest;
class QvtpServerResponse;
}  // namespace Quovane::Qvtp

namespace Quovane::Internal::Qvtp {

class InputBuffer;
class LimitedInput;
class MessageSink;

/// Serves one accepted connection on a pool thread: reads requests one after another and calls the handler for each.
/// It hangs up when the client goes quiet, on any failure, when the server stops, and between two requests when the
/// server needs its thread for a new connection. The server deletes it when it is no longer running.
///
/// It never drops a request that was accepted from its client: before it hangs up on a client that may still write, it
/// breaks the client's next write and serves what was written before (docs/threading.md).
class RequestWorker : public Poco::Runnable {
  public:
    using Clock = std::chrono::steady_clock;
    using QvtpServer = Quovane::Qvtp::QvtpServer;
    using QvtpServerRequest = Quovane::Qvtp::QvtpServerRequest;
    using QvtpServerResponse = Quovane::Qvtp::QvtpServerResponse;

    /// The server is not owned.
    RequestWorker(std::unique_ptr<Quovane::Io::QvPipe> pipe, QvtpServer* server, const std::string& name,
                  std::shared_ptr<ThreadUse> threads);
    ~RequestWorker() override;

    void run() override;

    /// The answer to the current request is about to leave as a whole. Its client writes nothing more before it has
    /// that: the moment to end reading, if the thread is to be given up, since no request can be cut by it.
    void beforeAnswer();
    /// The short way of the answer, null if there is none.
    MessageSink* sink() const;

    // From the server's thread.

    /// Ends the loop and wakes it.
    void stop();
    /// Whether a connection waits for a thread.
    void setGiveUp(bool giveUp) { giveUp_ = giveUp; }
    /// Whether its last request ended while a connection waited, and its client has sent nothing since: such a worker
    /// can be asked for its thread.
    bool isResting() const { return wait_ == Wait::RESTING; }
    /// From when on it may be asked: its client has had it for a while then.
    Clock::time_point endOfTurn() const { return endOfTurn_; }
    /// Since when its client has sent nothing, if it has sent a request before and the server makes room for others.
    /// Otherwise a moment that never comes.
    Clock::time_point silentSince() const {
        return wait_ != Wait::NONE ? silentSince_.load() : Clock::time_point::max();
    }
    /// Asks a worker for its thread that rests or whose client is silent.
    void ask();
    /// Whether its client's next request came before it was asked: it serves that first.
    bool isAskedInVain() const { return asked_ && wait_ == Wait::NONE; }
    /// Makes a resting worker look at the clock: it is the next whose turn ends.
    void nudge();
    /// Has it serve what its client has written by now, and then end: the server takes no more.
    void drain();
    /// Closes the connection and frees its buffers, if a handler's exception has ended the worker and its client has
    /// gone since.
    void releaseIfDeserted();

    /// False when run() has done its last step: only then the worker may be deleted.
    bool isRunning() const { return running_; }
    /// When the pool has stopped, a worker whose thread never came to run() never will.
    void endUnlessBegun() {
        if (!begun_) running_ = false;
    }
    /// The list of workers that a server has left alone.
    void setNextAbandoned(RequestWorker* next) { nextAbandoned_ = next; }
    RequestWorker*& nextAbandoned() { return nextAbandoned_; }

    const std::string& getName() const { return name_; }
    const std::string& getFullName() const { return fullName_; }

  private:
    enum class Next { REQUEST, SILENCE, GIVE_UP };
    /// Whether the worker waits between two requests; RESTING: and can be asked for its thread; ENDED: a drain is about
    /// to end the reading, if it has not yet.
    enum class Wait { NONE, PLAIN, RESTING, ENDED };

    void prepareStreams();
    void serveRequests();
    Next awaitNext();
    Next awaitInput(Clock::time_point idleEnd, Clock::time_point now);
    bool isConnectionWaiting() const;
    bool isAskedToGiveUp(bool requestEnded);
    Clock::time_point endOfWait(Clock::time_point idleEnd) const;
    bool hasInput() const;
    bool awaitBusyClient();
    bool hasWholeRequests() const;
    bool staysSilent();
    void giveUp();
    void serveRest();
    bool isDraining() const;
    void noteCutOff();
    void noteLeft(bool hasMore);
    std::string takeRest();

    bool beginsRequest(std::istream& in);
    void logInterruption(const std::string& message) const;
    bool serveRequest(std::istream& in, int headTimeoutMs, const RestInput* rest = nullptr);
    bool serveBegunRequest(std::istream& in, const RestInput* rest);
    bool serveWithBody(QvtpServerRequest& request, const RestInput* rest);
    bool serveLimitedRequest(std::istream& in, const RestInput* rest);
    bool isOverLimit() const;
    void refuse(const LimitedInput& limited);
    void dropInput(Clock::time_point end);
    template <typename Read>
    bool tryRead(const Read& read);
    bool handle(QvtpServerRequest& request);
    bool dispatch(QvtpServerRequest& request);
    void handleNotify(QvtpServerRequest& request);
    void handlePost(QvtpServerRequest& request);
    template <typename Call>
    void callHandler(QvtpServerResponse* response, const Call& call);
    void handleUnknownException(int policy, QvtpServerResponse* response);
    void answerError(int code);
    bool skipBody();
    void endReading();
    bool hasFailedStream() const;
    void logFailure(const char* kind, const std::string& message, QvtpServerRequest& request) const;

    // The life of a worker, and how its states differ:
    //
    //   state                    begun_  running_  wait_     deserted_
    //   waits for a thread       no      yes       NONE      no
    //   serves                   yes     yes       NONE      no
    //   waits                    yes     yes       PLAIN     no
    //   waits, can be asked      yes     yes       RESTING   no
    //   waits, drained           yes     yes       ENDED     no
    //   a handler's exception    yes     yes       NONE      yes         the thread has gone, the entry stays
    //   ended                    yes     no        NONE      no          may be deleted
    //
    // What it is told: stop_ ends it now, and drain_ when it has served what is there. giveUp_ says that a connection
    // waits for a thread, and asked_ that this worker is to give up its own before its client's next request.

    QvtpServer* server_;  // not owned
    std::unique_ptr<Quovane::Io::QvPipe> pipe_;
    const std::string name_;
    const std::string fullName_;  // with the pipe's name, as the log lines have it
    std::shared_ptr<ThreadUse> threads_;
    RequestWorker* nextAbandoned_ = nullptr;

    // Set by one thread, read by another.
    std::atomic<bool> stop_{false};
    std::atomic<bool> running_{true};
    std::atomic<bool> begun_{false};
    std::atomic<bool> giveUp_{false};
    std::atomic<bool> drain_{false};
    std::atomic<Wait> wait_{Wait::NONE};
    std::atomic<bool> asked_{false};
    std::atomic<bool> deserted_{false};
    std::atomic<Clock::time_point> endOfTurn_{Clock::time_point::max()};
    std::atomic<Clock::time_point> silentSince_{Clock::time_point::max()};

    // Of the worker's own thread.
    std::unique_ptr<char[]> inputBuffer_;   // of the pipe's stream
    std::unique_ptr<char[]> outputBuffer_;  // of the pipe's stream; null if it does not write
    std::shared_ptr<InputBuffer> body_;     // of the current request
    int idleTimeoutMs_ = 0;
    int receiveTimeoutMs_ = 0;
    Clock::time_point waitBegin_;  // since when the next request is waited for
    bool served_ = false;          // a request has ended
    bool candidate_ = false;       // it ended while a connection waited
    bool makesRoom_ = false;       // can be asked for its thread whenever its client is silent
    bool readingEnded_ = false;    // the client's next write breaks
    bool handlerFailed_ = false;   // with an exception that is not the library's, which leaves run()
    bool mustClose_ = false;       // the same, but the connection is to be closed
    QvtpServer::Limits limits_;
    bool hasLimits_ = false;
    LimitedInput* limited_ = nullptr;  // what the current request is read from, if there are limits; not owned
    bool answered_ = false;            // something was sent for it, if there are limits
    Quovane::Soa::Common::Xml::Utf8String converter_;
};

/// Reads what begins a request. False if that fails: then it was logged, and the worker hangs up.
template <typename Read>
bool RequestWorker::tryRead(const Read& read) {
    try {
        read();
        return true;
    } catch (Quovane::Io::TimeoutException& e) {
        logDebug(
            [&] { return "TimeoutException - " + fullName_ + " timed out waiting for a request.  " + e.getMessage(); });
    } catch (Quovane::Io::InterruptedException& e) {
        logInterruption(e.getMessage());
    } catch (Quovane::Io::QvPipeException& e) {
        if (!stop_ && !isOverLimit()) {
            logError([&] {
                return "QvPipeException - " + fullName_ + " error while reading request start line. " + e.getMessage();
            });
        }
    }
    return false;
}

}  // namespace Quovane::Internal::Qvtp
