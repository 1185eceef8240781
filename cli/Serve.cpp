// qvtp serve

#include "cli/Command.h"
#include "cli/Json.h"
#include "cli/Numbers.h"
#include "cli/Program.h"

#include <qvtp/platform/StopSignal.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <future>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace qvtp::cli {

namespace {

/// Ends the programs while the server stops, when its drain is over.
class ProgramsEnd {
  public:
    /// `drain`: below 0 none.
    ProgramsEnd(Programs& programs, Milliseconds drain) {
        done_ = std::async(std::launch::async, [this, &programs, drain] {
            // The connections break first: what a program comes to when it is ended is no answer.
            const auto patience = std::max(drain, Milliseconds(0)) + Milliseconds(2000);
            if (isOver_.get_future().wait_for(patience) != std::future_status::ready) programs.end();
        });
    }
    ProgramsEnd(const ProgramsEnd&) = delete;
    ProgramsEnd& operator=(const ProgramsEnd&) = delete;
    ~ProgramsEnd() { isOver_.set_value(); }

  private:
    std::promise<void> isOver_;
    std::future<void> done_;  // goes first, and waits for its thread
};

class Serve : public Command {
  public:
    CLI::App* addTo(CLI::App& program) override {
        CLI::App* const app = program.add_subcommand("serve", "Serve a pipe until a signal comes");
        app->add_option("PIPE", pipe_, "The name of the pipe")->required();
        auto* const echo = app->add_flag("--echo", isEcho_, "Answer each POST with its own body; the default");
        auto* const reply = app->add_option("--reply", reply_, "Answer each POST with this body")->excludes(echo);
        app->add_option("--exec", commandLine_,
                        "Run this command of the shell once for each request. The body is its input; QVTP_METHOD, "
                        "QVTP_RESOURCE, QVTP_PEER_PID and QVTP_HEADER_<NAME> are in its environment. What it prints is "
                        "the reply, with 500 if it fails")
            ->excludes(echo)
            ->excludes(reply);
        accept(app->add_option("--status", status_, "The status of the replies"), Unit::NUMBER, 100, 999)
            ->capture_default_str();
        addLimitsTo(*app);
        acceptSeconds(
            app->add_option("--drain", drainSeconds_,
                            "Seconds for requests that have begun when the signal comes; 0: cut them off. On Linux "
                            "commands of --exec that still run then are ended"))
            ->capture_default_str();
        app->add_flag("-v,--verbose", isVerbose_, "Show each request on standard error");
        app->add_flag("--json", isJson_, "Print the counters at the end as JSON on standard output");
        return app;
    }

    int run() override {
        options_.limits.headMs = static_cast<int>(millisecondsOf(headSeconds_).count());
        options_.limits.requestMs = static_cast<int>(millisecondsOf(requestSeconds_).count());
        auto signal = std::make_unique<Quovane::Io::StopSignal>();  // before it says that one ends it
        Server server(pipe_, options_);
        server.onPost("*", [this](const Request& request) { return answer(request); });
        server.onNotify("*", [this](const Request& request) { take(request); });
        server.onError([this](const Request& request, const std::string& text) { show(request, "failed: " + text); });
        server.start();
        say("Serving " + pipe_ + " at " + Quovane::Io::findPipeFacts(pipe_).path + ". Ctrl-C ends it.\n");
        while (signal->wait(1000) == 0 && server.isRunning()) {
        }
        signal.reset();  // a second one ends the program at once
        const bool isWhole = stop(server);
        report(server.counters());
        if (!isWhole) say("Requests were cut off.\n");
        return isWhole ? OK : BROKEN;
    }

  private:
    bool stop(Server& server) {
        const Milliseconds drain = drainSeconds_ > 0 ? millisecondsOf(drainSeconds_) : Milliseconds(-1);
        const ProgramsEnd end(programs_, drain);
        return server.stop(drain);
    }

    void addLimitsTo(CLI::App& app) {
        constexpr std::int64_t MOST = std::numeric_limits<int>::max();
        auto& limits = options_.limits;
        accept(app.add_option("--workers", options_.workers,
                              "Most clients at once, else chosen for the machine; 0: no limit; 1 and 2 work as 3"),
               Unit::NUMBER, 0, 10000);
        accept(app.add_option("--max-head", limits.headBytes, "Most bytes of a head; 0: no limit"), Unit::BYTES, 0,
               MOST);
        accept(app.add_option("--max-headers", limits.headers, "Most headers; 0: no limit"), Unit::NUMBER, 0, MOST);
        accept(app.add_option("--max-body", limits.bodyBytes, "Most bytes of a body; 0: no limit"), Unit::BYTES, 0,
               std::int64_t(1) << 50);
        acceptSeconds(app.add_option("--head-timeout", headSeconds_, "Most seconds for a head; 0: no limit"));
        acceptSeconds(app.add_option("--request-timeout", requestSeconds_, "Most seconds for a request; 0: no limit"));
    }

    Reply answer(const Request& request) {
        Reply reply(status_);
        if (commandLine_) {
            const ProgramResult result = runCommand(request);
            if (result.exitCode != 0) reply.setStatus(500);
            reply.setBody(result.output);
        } else if (reply_) {
            reply.setBody(*reply_);
        } else {
            reply.setBody(request.body());
        }
        show(request, std::to_string(reply.status()) + ", " + std::to_string(reply.body().size()) + " bytes");
        return reply;
    }

    void take(const Request& request) {
        if (!commandLine_) {
            show(request, std::to_string(request.body().size()) + " bytes");
            return;
        }
        const ProgramResult result = runCommand(request);
        show(request, "exit code " + std::to_string(result.exitCode));
    }

    ProgramResult runCommand(const Request& request) {
        ProgramResult result = programs_.run(*commandLine_, request);
        if (result.exitCode != 0) ++failedCommands_;
        return result;
    }

    void show(const Request& request, const std::string& outcome) {
        if (!isVerbose_) return;
        const std::lock_guard<std::mutex> guard(mutex_);
        say(request.method() + " " + request.resource() + " from process " + std::to_string(request.peer().processId) +
            ": " + outcome + "\n");
    }

    void report(const ServerCounters& counters) const {
        const std::uint64_t failed = counters.handlerErrors + failedCommands_;
        if (isJson_) {
            std::cout << textOf(Json{{"posts", counters.posts}, {"notifies", counters.notifies}, {"failed", failed}})
                      << std::flush;
        } else {
            say("Served " + std::to_string(counters.posts) + " POST, " + std::to_string(counters.notifies) +
                " NOTIFY; " + std::to_string(failed) + " failed.\n");
        }
    }

    std::string pipe_;
    std::optional<std::string> reply_, commandLine_;
    bool isEcho_ = false, isVerbose_ = false, isJson_ = false;
    int status_ = 200;
    double headSeconds_ = 0, requestSeconds_ = 0, drainSeconds_ = 10;
    ServerOptions options_;
    Programs programs_;
    std::atomic<std::uint64_t> failedCommands_{0};
    std::mutex mutex_;  // keeps the lines of standard error whole
};

}  // namespace

std::unique_ptr<Command> makeServe() {
    return std::make_unique<Serve>();
}

}  // namespace qvtp::cli
