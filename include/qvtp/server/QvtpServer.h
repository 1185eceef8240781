#pragma once

#include <qvtp/Export.h>
#include <qvtp/io/ServerQvPipe.h>
#include <qvtp/server/QvtpHandler.h>

#include <Poco/Runnable.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Poco {
class Mutex;
class ThreadPool;
}  // namespace Poco

namespace Quovane::Internal::Qvtp {
class RequestWorker;
class ServerSettings;
class ThreadUse;
}  // namespace Quovane::Internal::Qvtp

namespace Quovane::Qvtp {

/// Serves one pipe name: accepts connections and has each served by a worker thread that calls the handler.
///
///     QvtpServer server("prices", 1);
///     server.setHandler(&handler);
///     server.setUnhandledExceptionPolicy(QvtpServer::ANSWER);
///     auto run = std::async(std::launch::async, [&] { server.run(); });
///     while (!server.isRunning()) {  // or run() has ended: the name could not be taken
///         if (run.wait_for(std::chrono::milliseconds(10)) == std::future_status::ready) return;
///     }
///     ...
///     server.shutdown();
///     run.get();
///
/// shutdown() before run() has no effect: who calls it too early, and then waits for the end of run(), waits for ever.
/// To wait for isRunning() alone is no way out, since it stays false if run() cannot serve. Wait for either, as above.
///
/// With more clients than workers the clients take turns, and nothing that was accepted from one of them is lost:
/// docs/threading.md has the rules.
///
/// run() occupies one thread; everything else may be called from any. Set options and handler before run(): a worker
/// reads them when it takes over a connection.
class QVTP_API QvtpServer : public Poco::Runnable {
  public:
    enum ServerOptions : int {
        ACCESS_MODE = 0,             ///< integer: reads as 1, whatever is set; the constructor decides the direction
        SERVER_NAME = 1,             ///< string, "QvtpServer": the HEADER_SERVER of every response
        MAX_REQUEST_PROCESSORS = 2,  ///< integer, 5: most connections served at once, at least 3; 0: no limit
        ACCEPT_TIMEOUT = 3,          ///< integer, ms, 0: how long one accept waits; 0 without limit
        IDLE_TIMEOUT = 4,            ///< integer, ms, 13000: a connection without a new request is closed; 0 never
        RECEIVE_TIMEOUT = 5,         ///< integer, ms, 3000: longest pause within a request's body; 0 without limit
        BUFFER_SIZE = 6,             ///< integer, bytes, 4096: the pieces of reading and writing; also the chunk size
    };

    /// What happens when a handler lets out an exception that is not of this library. See QvtpHandler.
    enum UnhandledExceptionPolicy : int {
        KEEP = 0,    ///< logged at WARN; the client stays connected, without an answer
        CLOSE = 1,   ///< logged at ERROR; the connection is closed
        ANSWER = 2,  ///< the same, after a response of status 500 if the handler has sent nothing yet
    };

    /// What one request may take. 0, the default, and below: no limit.
    struct Limits {
        int headBytes = 0;           ///< of start line and headers, with line ends and the empty line after them
        int headers = 0;             ///< lines; one that continues another does not count
        std::int64_t bodyBytes = 0;  ///< as the handler reads them, without the framing of chunks
        int headMs = 0;              ///< from the first byte of the request to the end of its head
        int requestMs = 0;           ///< from the first byte of the request to the end of its body
    };

    /// What a server has done since it was made. Each figure is exact; they are read one after another, so that
    /// requests that come meanwhile may be in one and not in another.
    struct Statistics {
        std::int64_t posts = 0;           ///< POST requests that were given to the handler
        std::int64_t notifications = 0;   ///< NOTIFY requests that were given to the handler
        std::int64_t connections = 0;     ///< that were accepted
        std::int64_t endedWorkers = 0;    ///< of connections that ended; noticed at the next one, not at the stop
        std::int64_t waitsForThread = 0;  ///< connections that had to wait for a worker, and got one
        int peakWorkers = 0;              ///< most connections that had a worker at once
    };

    /// Takes the pipe name; clients connect from now on and wait until run(). `accessMode`: 1 for POST and NOTIFY,
    /// anything else for a pipe that only reads, for NOTIFY alone. A name that cannot be taken (served by another, or
    /// no possible name) is logged at ERROR and not thrown: run() then returns at once.
    QvtpServer(const std::string& pipeName, int accessMode);
    QvtpServer(const QvtpServer&) = delete;
    QvtpServer& operator=(const QvtpServer&) = delete;
    /// Does what shutdown() does, and waits for a run() on another thread to return.
    ~QvtpServer() override;

    /// Sets an option. Any value is kept; a buffer size below 1 works as 1. An option of the other kind is logged at
    /// ERROR and changes nothing.
    void setOption(ServerOptions option, int value);
    void setOption(ServerOptions option, const std::string& value);
    /// The value of an option. An option of the other kind is logged at ERROR; the result is -1 or an empty string.
    int getIntegerOption(ServerOptions option) const;
    std::string getStringOption(ServerOptions option) const;

    /// The handler stays the caller's and must outlive the server. Without one every request ends its connection.
    void setHandler(QvtpHandler* handler);
    QvtpHandler* getHandler() const;

    /// KEEP unless it is set. CLOSE and ANSWER free the worker as well, so that a faulty handler costs one request and
    /// no more; ANSWER is what most applications want. From any thread, at any time.
    void setUnhandledExceptionPolicy(UnhandledExceptionPolicy policy);

    /// Ends requests that take more than this, for servers that do not trust their clients. Such a request is logged at
    /// WARN, and its connection is closed. A POST to which nothing was sent yet is answered first: 414 for a start line
    /// that is too long, 400 for a head that is, 413 for a body, 408 for time. Where the handler is reading the body
    /// by then, its read throws QvPipeException: let it pass. When the time is over, what has arrived is still read, so
    /// that a handler may take its time before it reads. The server's time-outs, for each pause, go on beside this.
    /// Throws nothing. From any thread; it holds for connections that a worker takes over from then on. It costs
    /// nothing while all are 0; otherwise a head is read byte by byte, a microsecond or so for a small one.
    void setLimits(const Limits& limits);

    /// Lets many clients that are mostly silent share few workers; false unless it is set. While a connection waits for
    /// a worker, the client that has been silent for longest since its last request, for 20 ms at least, makes room for
    /// it: its next write breaks, and its next request goes to a new connection, unseen by the application. One client
    /// does so for each connection that waits. If nobody is silent, the others share their workers as always, after 20
    /// ms more. A client whose next request comes while it is asked is served first, and until the next tenth of the
    /// IDLE_TIMEOUT nobody else may be asked in its place. Without it a client that fell silent before anybody waited
    /// keeps its worker until the IDLE_TIMEOUT. Throws nothing. From any thread; it holds for connections that a worker
    /// takes over from then on. A wait for a request costs another call of the system on Linux, and each change of a
    /// worker a connection.
    void setMakeRoom(bool makeRoom);

    /// Accepts and serves until shutdown(), then stops the workers: closes their pipes and waits for the handlers that
    /// are still running, about ten seconds each, and four for all. A handler that does not return by then is left
    /// alone, and its worker with it. A server runs once. It returns at once if the constructor could not take the
    /// name. If the first threads cannot be started, that is logged at ERROR, the name is given up, and run() returns.
    void run() override;
    /// Ends run(). It does not wait for that. It does nothing while isRunning() is false, so also before run() accepts:
    /// see the example above. One thing it does even then: it ends the wait of a drain().
    void shutdown();
    /// Ends run() without cutting anything off. The server accepts no more and ends the reading of every connection, so
    /// that its client's next write breaks. Workers serve what has arrived by then, and a connection that was accepted
    /// and waits for a worker gets one. Clients that have connected and were not accepted yet are cut off: run()
    /// accepts one at a time, and none while that one waits for a worker. That may take `milliseconds`, 0 and below
    /// without limit. Then it does what shutdown() does. True if all requests that had begun to arrive were served, and
    /// every worker has ended. A request was served if it reached the handler and no part was missing that anybody
    /// asked for, however the handler ended. It was not if its head or its body did not come whole in time, or if it
    /// exceeded a limit. It is false too if a client was connected and not accepted, whether it had written or not; on
    /// Windows such a client cannot be seen and does not count. A shutdown() of another thread ends it early. Before
    /// run() it gives the name up, and run() returns at once; that is true too, and so is a drain() after shutdown(),
    /// which has nothing left to do. False at once while another thread drains. From any thread but a handler's, which
    /// it would wait for. It throws nothing. It costs the stop nothing, and an exchange a look at a flag.
    bool drain(int milliseconds);
    /// Whether run() accepts connections. It is false before that, from shutdown() on, and if run() cannot serve.
    bool isRunning() const;

    /// How many more connections could be served at once without waiting or growing.
    int idleRequestProcessors() const;
    /// How many connections have a worker, those that have just finished included.
    int totalRequestProcessors() const;

    /// What it has done so far: the figures of the summary that run() logs at DEBUG when it ends. From any thread, at
    /// any time, also from a handler. It costs six reads and throws nothing.
    Statistics statistics() const;

  private:
    friend class Internal::Qvtp::RequestWorker;
    using WorkerPtr = std::unique_ptr<Internal::Qvtp::RequestWorker>;
    using WorkerMap = std::map<std::string, WorkerPtr>;
    class RunGuard;
    class StopGuard;
    struct QVTP_HIDDEN IntegerOptions;
    class QVTP_HIDDEN HandOver;

    void acceptLoop();
    void stopWorkers();
    void requestStop();
    void endUnbegunWorkers();
    void waitForWorkers();
    void deleteWorkers();
    bool hasRunningWorker() const;
    void logSummary() const;

    void initializeThreadPool();
    void assignToWorkerThread(std::unique_ptr<Io::QvPipe> pipe);
    bool freeFinishedWorkers();
    void cancelBusyWorkers(bool giveUp);

    // The life of a server. Its pipe name is taken in all states but the last, if it could be taken at all.
    //
    //   state                       running_  activeRuns_
    //   constructed                 no        0
    //   run() prepares its threads  no        1
    //   run() accepts               yes       1
    //   run() stops its workers     no        1
    //   stopped                     no        0
    //
    // destroying_ keeps a run() that has begun from accepting. The end of running_ is announced to the accept thread by
    // closing the server pipe, and to its wait for a thread by threads_.

    std::string pipeName_;
    bool writable_;  // the direction of the pipes, which the access flag does not show
    std::atomic<bool> running_{false};
    std::unique_ptr<Io::ServerQvPipe> serverPipe_;
    std::atomic<QvtpHandler*> handler_{nullptr};                // not owned
    std::unique_ptr<Internal::Qvtp::ServerSettings> settings_;  // never null
    std::string serverName_ = "QvtpServer";                     // guarded by mutex_
    std::atomic<int> accessFlag_{1};  // what ACCESS_MODE reads as; never 0, so the workers' tests of it always hold
    std::atomic<int> maxRequestProcessors_{5};
    std::atomic<int> acceptTimeout_{0};
    std::atomic<int> idleTimeout_{13000};
    std::atomic<int> receiveTimeout_{3000};
    std::atomic<int> bufferSize_{4096};
    std::unique_ptr<Poco::Mutex> mutex_;                  // recursive; goes after all that it guards
    WorkerMap workers_;                                   // guarded by mutex_
    std::shared_ptr<Poco::ThreadPool> threadPool_;        // of the accept thread
    std::shared_ptr<Internal::Qvtp::ThreadUse> threads_;  // shared with the workers; atomic

    // Statistics.
    std::atomic<std::int64_t> totalPosts_{0};
    std::atomic<std::int64_t> totalNotifies_{0};
    std::atomic<std::int64_t> totalWorkersUsed_{0};
    std::atomic<std::int64_t> totalIdleTimeouts_{0};
    std::atomic<std::int64_t> totalWaitsForThread_{0};
    std::atomic<int> peakThreads_{0};

    std::atomic<UnhandledExceptionPolicy> unhandledExceptionPolicy_{KEEP};
    std::atomic<bool> destroying_{false};
    std::mutex runMutex_;  // guards activeRuns_
    std::condition_variable runEnded_;
    int activeRuns_ = 0;
};

using ServerOptions = QvtpServer::ServerOptions;

}  // namespace Quovane::Qvtp
