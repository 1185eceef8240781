#pragma once

#include <qvtp/easy/Dispatcher.h>
#include <qvtp/platform/StopSignal.h>

#include <atomic>
#include <future>

namespace qvtp {
/// Serves one pipe name with functions.
///
///     qvtp::Server server("greetings");
///     server.onPost("/hello", [](const qvtp::Request& r) { return qvtp::Reply("Hello " + r.body()); });
///     server.runUntilSignal();
///
/// The constructor takes the name: from then on clients connect, and wait. Handlers run on threads of the server,
/// several at once, one for each connection (ServerOptions::workers). What a handler throws costs its request alone: a
/// POST is answered with 500, and its connection is closed.
///
/// All functions may be called from any thread, in any order and repeatedly; none waits for ever but for a drain
/// without limit. In a handler, stop() does not wait, start() and runUntilSignal() throw misuse, and the server must
/// not be destroyed. A handler that does not return holds a stop up for some fourteen seconds; then its thread is left
/// alone. In a forked child a server of the parent does nothing: make another.
class Server {
  public:
    /// Takes the name. Throws Error: name_taken, bad_directory, misuse (no pipe can have the name), denied (the system
    /// refuses, or is short of something).
    explicit Server(std::string pipeName, ServerOptions options = {})
        : pipeName_(std::move(pipeName)), options_(std::move(options)), run_(takeName()) {}
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    /// Does what stop() does.
    ~Server() {
        stop();
        if (process_ != detail::io::currentProcessId()) new std::shared_ptr<Run>(run_);  // its thread is the parent's
    }
    /// Serves POSTs of this resource, or of all that begin with what stands before a '*' at its end. The whole resource
    /// goes first, then the longest prefix; "*" gets the rest. What has no handler is answered with 404, or with 501 if
    /// there is one for the other kind. Throws misuse while the server runs, as the next two.
    void onPost(const std::string& resource, std::function<Reply(const Request&)> handler) {
        settable().posts[resource] = std::move(handler);
    }
    /// The same for NOTIFYs. Those without a handler are dropped, and counted.
    void onNotify(const std::string& resource, std::function<void(const Request&)> handler) {
        settable().notifies[resource] = [handler = std::move(handler)](const Request& request) {
            return handler(request), Reply();
        };
    }
    /// What is called, on the handler's thread, after a handler has thrown. What it throws itself is dropped.
    void onError(std::function<void(const Request&, const std::string& text)> handler) {
        settable().onError = std::move(handler);
    }
    /// Begins to serve, and returns. Nothing if it serves already. After a stop it takes the name again. Throws as the
    /// constructor; denied also if there are no threads.
    void start() {
        refuseInHandler();
        if (const auto run = current(); run != nullptr && run->stopped) stop();  // the rest of a stop from a handler
        const std::lock_guard<std::mutex> guard(mutex_);
        if (run_ == nullptr) run_ = takeName();
        if (run_->ended.valid()) return;
        try {
            run_->ended = std::async(std::launch::async, [&server = run_->server] { server.run(); });
        } catch (const std::system_error&) {
            run_ = nullptr;
        }
        // Whether it runs can only be asked again and again.
        while (run_ != nullptr && !run_->server.isRunning() && !run_->stopped) {
            if (run_->ended.wait_for(Milliseconds(1)) == std::future_status::ready) run_ = nullptr;
        }
        if (run_ == nullptr) throwWhyNot();
    }
    /// Ends serving and gives the name up. `drain`: how long requests that have begun to arrive may take to be served,
    /// 0 without limit; below 0, the default, they are cut off. True if none was. It may come before start(). One that
    /// cuts off ends the drain of another thread. In a handler it cuts off, returns false, and waits for nothing: the
    /// next start(), stop() or the destruction does.
    bool stop(Milliseconds drain = Milliseconds(-1)) {
        const std::shared_ptr<Run> run = current();
        if (run == nullptr || process_ != detail::io::currentProcessId()) return true;
        run->stopped = true;
        if (dispatcher_->isInHandler()) return run->server.shutdown(), false;
        const bool isWhole = run->stop(drain);
        if (run->ended.valid()) run->ended.wait();
        const std::lock_guard<std::mutex> guard(mutex_);
        if (run_ == run) run_ = nullptr;
        return isWhole;
    }
    /// start(), waits for SIGINT or SIGTERM (on Windows Ctrl-C, Ctrl-Break, the end of the console or the session), and
    /// stops with this drain. It returns also when somebody else stops the server. After the first signal the handling
    /// of signals is what it was before: a second one ends the process as ever. What the process ignores stays ignored.
    /// True if no request was cut off.
    bool runUntilSignal(Milliseconds drain = std::chrono::seconds(10)) {
        refuseInHandler();
        auto signal = std::make_shared<detail::io::StopSignal>();  // before the start: none is missed
        const std::weak_ptr<detail::io::StopSignal> wait = signal;
        start();
        const std::shared_ptr<Run> run = current();
        auto stopping = std::async(std::launch::async, [this, drain, signal = std::move(signal)]() mutable {
            const bool isWanted = signal->wait(0) != 0;
            signal.reset();
            return isWanted ? stop(drain) : stop();
        });
        if (run != nullptr) run->ended.wait();
        if (const auto waiting = wait.lock()) waiting->wake();
        return stopping.get();
    }
    bool isRunning() const {
        const std::shared_ptr<Run> run = current();
        return run != nullptr && run->server.isRunning();
    }
    ServerCounters counters() const {
        ServerCounters counters = dispatcher_->counters();
        counters.workers = workers();
        if (const std::shared_ptr<Run> run = current()) counters.connections = run->server.totalRequestProcessors();
        return counters;
    }

  private:
    using Native = Quovane::Qvtp::QvtpServer;
    /// From the taking of the name to its giving up.
    struct Run {
        Run(const std::string& pipeName, const ServerOptions& options, int workers,
            std::shared_ptr<detail::Dispatcher> handler)
            : dispatcher(std::move(handler)), server(pipeName, 1) {
            server.setHandler(dispatcher.get());
            server.setUnhandledExceptionPolicy(Native::ANSWER);
            server.setMakeRoom(true);
            server.setLimits(options.limits);
            server.setOption(Native::MAX_REQUEST_PROCESSORS, workers);
            server.setOption(Native::IDLE_TIMEOUT, detail::millisecondsOf(options.idleTimeout));
            server.setOption(Native::RECEIVE_TIMEOUT, detail::millisecondsOf(options.receiveTimeout));
        }
        ~Run() { stop(Milliseconds(-1)); }
        /// A drain ends a server in every state, a shutdown() only one that runs; but it ends a drain too.
        bool stop(Milliseconds drain) {
            const bool isWhole = server.drain(drain.count() < 0 ? 1 : detail::millisecondsOf(drain));
            if (drain.count() < 0) server.shutdown();
            return isWhole;
        }
        const std::shared_ptr<detail::Dispatcher> dispatcher;  // outlives the server
        Native server;
        std::atomic<bool> stopped{false};
        std::shared_future<void> ended;  // not valid before the start; outlived by the server
    };
    int workers() const {
        const unsigned wanted = std::clamp(std::thread::hardware_concurrency() * 4, 16U, 256U);
        return options_.workers > 0 ? std::max(options_.workers, 3) : static_cast<int>(wanted);
    }
    std::shared_ptr<Run> current() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return run_;
    }
    detail::Dispatcher& settable() const {
        const std::shared_ptr<Run> run = current();
        if (run == nullptr || !run->ended.valid()) return *dispatcher_;
        throw Error(ErrorKind::misuse, "Handlers of the pipe \"" + pipeName_ + "\" are set before its server runs.");
    }
    void refuseInHandler() const {
        if (!dispatcher_->isInHandler()) return;
        throw Error(ErrorKind::misuse, "A handler of the pipe \"" + pipeName_ + "\" cannot start its own server.");
    }
    /// The library's server does not say whether it has got the name.
    std::shared_ptr<Run> takeName() const {
        using State = detail::io::PipeFacts::State;
        const State before = detail::io::findPipeFacts(pipeName_).state;
        if (before != State::FREE && before != State::NO_DIRECTORY) throwWhyNot();
        auto run = std::make_shared<Run>(pipeName_, options_, workers(), dispatcher_);
        if (detail::io::findPipeFacts(pipeName_).state != State::SERVED) throwWhyNot();
        return run;
    }
    [[noreturn]] void throwWhyNot() const {
        using State = detail::io::PipeFacts::State;
        ErrorKind kind = ErrorKind::denied;
        const State state = detail::io::findPipeFacts(pipeName_).state;
        if (state == State::SERVED) kind = ErrorKind::name_taken;
        if (state == State::BAD_NAME) kind = ErrorKind::misuse;
        if (state == State::NO_DIRECTORY || state == State::BAD_DIRECTORY) kind = ErrorKind::bad_directory;
        throw detail::errorOf(kind, pipeName_, "The server cannot start.");
    }
    const std::string pipeName_;
    const ServerOptions options_;
    const std::int64_t process_ = detail::io::currentProcessId();
    const std::shared_ptr<detail::Dispatcher> dispatcher_ = std::make_shared<detail::Dispatcher>();
    mutable std::mutex mutex_;  // guards run_, and held while it starts
    std::shared_ptr<Run> run_;  // null: stopped
};
}  // namespace qvtp
