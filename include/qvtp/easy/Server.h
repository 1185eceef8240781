#pragma once
#include <qvtp/easy/Dispatcher.h>
#include <future>

namespace qvtp {
/// Serves one pipe name with functions.
/// Handlers run on threads of the server, several at once, one for each connection. What one throws costs its request
/// alone: a POST is answered with 500, and its connection is closed.
/// All functions may be called from any thread, in any order and repeatedly. None waits for ever but for a drain
/// without limit: a handler that does not return holds a stop up for 14 seconds, the next for 10, and their threads are
/// left alone. In a handler, stop() does not wait, start() and runUntilSignal() throw misuse, and the server must not
/// be destroyed. In a forked child a server of the parent does nothing: make another. The destructor calls stop().
class Server {
  public:
    /// Takes the name: from now on clients connect, and wait. Throws Error: name_taken, bad_directory, misuse (no pipe
    /// can have the name), denied (the system refuses, or is short of something).
    explicit Server(std::string pipeName, const ServerOptions& options = {})
        : pipeName_(std::move(pipeName)), options_(options), run_(takeName()) {}
    ~Server() {
        stop();
        if (process_ != detail::io::currentProcessId()) new (std::nothrow) auto(run_);  // its thread is the parent's
    }
    /// Serves POSTs of this resource, or of all that begin with what stands before a '*' at its end. The whole resource
    /// goes first, then the longest prefix; "*" gets the rest. What has no handler is answered with 404, or with 501 if
    /// there is one for the other kind. Throws misuse while the server runs, as the next two.
    void onPost(const std::string& resource, std::function<Reply(const Request&)> handler) {
        set([&](auto& handlers) { handlers.posts[resource] = std::move(handler); });
    }
    /// The same for NOTIFYs. Those without a handler are dropped, and counted.
    void onNotify(const std::string& resource, std::function<void(const Request&)> handler) {
        auto replying = [handler = std::move(handler)](const Request& request) { return handler(request), Reply(); };
        set([&](auto& handlers) { handlers.notifies[resource] = std::move(replying); });
    }
    /// What is called, on the handler's thread, after a handler has thrown. What it throws itself is dropped.
    void onError(std::function<void(const Request&, const std::string& text)> handler) {
        set([&](auto& handlers) { handlers.onError = std::move(handler); });
    }
    /// Begins to serve, if it does not yet. After a stop it takes the name again. Throws as the constructor.
    void start() {
        require(!dispatcher_->isInHandler(), "A handler cannot start its own server.");
        if (const auto run = current(); run != nullptr && run->stopped) stop();  // the rest of a stop from a handler
        const std::lock_guard<std::mutex> guard(mutex_);
        if (run_ == nullptr) run_ = takeName();
        if (run_->ended.valid()) return;
        try {
            run_->ended = std::async(std::launch::async, [&server = run_->server] { server.run(); });
        } catch (const std::system_error&) {
            run_ = nullptr;
        }
        while (run_ != nullptr && !run_->server.isRunning() && !run_->stopped) {  // it can only be asked again
            if (run_->ended.wait_for(Milliseconds(1)) == std::future_status::ready && !run_->stopped) run_ = nullptr;
        }
        if (run_ == nullptr) throwWhyNot(look());
    }
    /// Ends serving and gives the name up. `drain`: how long requests that have begun to arrive may take to be served,
    /// 0 without limit; below 0, the default, they are cut off, and so is another thread's drain. True if none was. In
    /// a handler it cuts off, returns false, and leaves the waiting to the next start(), stop() or the destruction.
    bool stop(Milliseconds drain = Milliseconds(-1)) {
        const std::shared_ptr<Run> run = current();
        if (run == nullptr || process_ != detail::io::currentProcessId()) return true;
        run->stopped = true;
        if (dispatcher_->isInHandler()) return run->server.shutdown(), false;
        const bool isWhole = run->stop(drain);
        waitFor(*run);
        const std::lock_guard<std::mutex> guard(mutex_);
        if (run_ == run) run_ = nullptr;
        return isWhole;
    }
    /// start(), waits for SIGINT or SIGTERM (on Windows Ctrl-C, Ctrl-Break, the end of the console or session) or for
    /// the stop() of another, and stops with this drain, with its result. The first signal gives the handling of
    /// signals back: a second one ends the process as ever. A signal that the process ignores stays ignored.
    bool runUntilSignal(Milliseconds drain = std::chrono::seconds(10)) {
        require(!dispatcher_->isInHandler(), "A handler cannot start its own server.");
        auto signal = std::make_shared<detail::io::StopSignal>();  // before the start: none is missed
        const std::weak_ptr<detail::io::StopSignal> wait = signal;
        start();
        const std::shared_ptr<Run> run = current();
        auto stopping = std::async(std::launch::async, [this, drain, signal = std::move(signal)]() mutable {
            const bool isWanted = signal->wait(0) != 0;
            signal.reset();
            return isWanted ? stop(drain) : stop();
        });
        if (run != nullptr) waitFor(*run);
        if (const auto waiting = wait.lock()) waiting->wake();
        return stopping.get();
    }
    bool isRunning() const {
        const std::shared_ptr<Run> run = current();
        return run != nullptr && run->server.isRunning();
    }
    ServerCounters counters() const {
        ServerCounters counters = dispatcher_->counters();
        counters.workers = options_.workers;
        if (const std::shared_ptr<Run> run = current()) counters.connections = run->server.totalRequestProcessors();
        return counters;
    }

  private:
    /// From the taking of the name to its giving up.
    struct Run {
        Run(const std::string& pipeName, const ServerOptions& options, std::shared_ptr<detail::Dispatcher> handler)
            : dispatcher(std::move(handler)), server(pipeName, 1) {
            server.setHandler(dispatcher.get());
            server.setUnhandledExceptionPolicy(server.ANSWER);
            server.setMakeRoom(true);
            server.setLimits(options.limits);
            server.setOption(server.MAX_REQUEST_PROCESSORS, options.workers);
            server.setOption(server.IDLE_TIMEOUT, numberOf(options.idleTimeout));
            server.setOption(server.RECEIVE_TIMEOUT, numberOf(options.receiveTimeout));
        }
        ~Run() { stop(Milliseconds(-1)); }
        /// A drain ends a server in every state, a shutdown() only one that runs; but it ends a drain too.
        bool stop(Milliseconds drain) {
            const bool isWhole = server.drain(drain.count() < 0 ? 1 : numberOf(drain));
            if (drain.count() < 0) server.shutdown();
            return isWhole;
        }
        const std::shared_ptr<detail::Dispatcher> dispatcher;  // outlives the server
        detail::exact::QvtpServer server;
        std::atomic<bool> stopped{false};
        std::shared_future<void> ended;  // not valid before the start; guarded by mutex_; goes before the server
    };
    std::shared_ptr<Run> current() const { return std::lock_guard<std::mutex>(mutex_), run_; }
    void waitFor(const Run& run) const {
        const std::shared_future<void> ended = (std::lock_guard<std::mutex>(mutex_), run.ended);
        if (ended.valid()) ended.wait();
    }
    void require(bool isRight, const char* text) const {
        if (!isRight) throw detail::errorOf(ErrorKind::misuse, pipeName_, text);
    }
    /// Changes a copy: a handler that was left alone still runs, and keeps what it has.
    template <typename Change>
    void set(const Change& change) const {
        const std::lock_guard<std::mutex> guard(mutex_);
        require(run_ == nullptr || !run_->ended.valid(), "Handlers are set before the server runs.");
        auto handlers = std::make_shared<detail::Dispatcher::Handlers>(*dispatcher_->handlers);
        change(*handlers);
        dispatcher_->handlers = std::move(handlers);
    }
    using State = detail::io::PipeFacts::State;
    State look() const { return detail::io::findPipeFacts(pipeName_).state; }
    /// The library's server does not say whether it has got the name. If it has not, though nobody has now, try again.
    std::shared_ptr<Run> takeName() const {
        State state = look();
        for (int tries = state == State::FREE ? 2 : state == State::NO_DIRECTORY ? 1 : 0; tries > 0; --tries) {
            auto run = std::make_shared<Run>(pipeName_, options_, dispatcher_);
            if ((state = look()) == State::SERVED) return run;
        }
        throwWhyNot(state);
    }
    [[noreturn]] void throwWhyNot(State state) const {
        constexpr ErrorKind KINDS[] = {ErrorKind::denied,        ErrorKind::name_taken,    ErrorKind::misuse,
                                       ErrorKind::bad_directory, ErrorKind::bad_directory, ErrorKind::denied};
        throw detail::errorOf(KINDS[static_cast<int>(state)], pipeName_, "The server cannot start.");
    }
    const std::string pipeName_;
    const ServerOptions options_;
    const std::int64_t process_ = detail::io::currentProcessId();
    const std::shared_ptr<detail::Dispatcher> dispatcher_ = std::make_shared<detail::Dispatcher>();
    mutable std::mutex mutex_;  // guards run_, and held while it starts
    std::shared_ptr<Run> run_;  // null: stopped
};
}  // namespace qvtp
