// qvtp ping

#include "cli/Command.h"
#include "cli/Durations.h"
#include "cli/Numbers.h"

#include <qvtp/io/ConnectException.h>
#include <qvtp/io/QvPipe.h>
#include <qvtp/io/TimeoutException.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

namespace qvtp::cli {

namespace {

using Clock = std::chrono::steady_clock;
using Quovane::Io::findPipeFacts;
using Quovane::Io::PipeFacts;
using Quovane::Io::QvPipe;

/// A ping connects and closes, without a request: the handler of the server does not see it.
class Ping : public Command {
  public:
    CLI::App* addTo(CLI::App& program) override {
        CLI::App* const app = program.add_subcommand(
            "ping",
            "See whether a server takes connections, and how fast. A place in the queue of a busy server "
            "counts as one");
        app->add_option("PIPE", pipe_, "The name of the pipe")->required();
        accept(app->add_option("-n,--count", count_, "How many times"), Unit::NUMBER, 1, 1000000)
            ->capture_default_str();
        acceptSeconds(app->add_option("--timeout", timeout_, "Seconds to wait for a busy server; 0: no limit"))
            ->capture_default_str();
        app->add_flag("--json", isJson_, "Print the result as JSON");
        return app;
    }

    int run() override {
        Durations durations;
        for (int i = 0; i < count_; ++i) {
            if (i > 0) std::this_thread::sleep_for(Milliseconds(100));
            const Clock::time_point begin = Clock::now();
            connect();
            durations.add(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
        }
        if (isJson_) {
            std::cout << textOf(Json{{"pipe", pipe_}, {"path", findPipeFacts(pipe_).path}, {"us", durations.json()}});
        } else {
            std::cout << pipe_ << " at " << findPipeFacts(pipe_).path << " took " << count_
                      << (count_ == 1 ? " connection" : " connections") << ": " << durations.summary() << "\n";
        }
        return OK;
    }

  private:
    /// As a client that only writes, which servers of every direction take but those that only write.
    void connect() const {
        if (pipe_.empty()) throw detail::errorOf(ErrorKind::misuse, pipe_, "The ping failed.");
        QvPipe pipe;
        pipe.setConnectTimeout(static_cast<int>(millisecondsOf(timeout_).count()));
        try {
            pipe.connect(pipe_, false, true);
        } catch (Quovane::Io::TimeoutException&) {
            throw detail::errorOf(ErrorKind::busy, pipe_, "The ping failed.");
        } catch (Quovane::Io::ConnectException& e) {
            throw detail::errorOf(kindOf(e), pipe_, "The ping failed.");
        } catch (Quovane::Io::QvPipeException& e) {
            throw detail::errorOf(ErrorKind::not_sent, pipe_, "The ping failed. " + e.getMessage());
        }
    }

    ErrorKind kindOf(Quovane::Io::ConnectException& e) const {
        switch (findPipeFacts(pipe_).state) {
            case PipeFacts::State::BAD_NAME:
                return ErrorKind::misuse;
            case PipeFacts::State::BAD_DIRECTORY:
                return ErrorKind::bad_directory;
            default:
                return e.getMessage() == "Access denied." ? ErrorKind::denied : ErrorKind::no_server;
        }
    }

    std::string pipe_;
    int count_ = 1;
    double timeout_ = 5;
    bool isJson_ = false;
};

}  // namespace

std::unique_ptr<Command> makePing() {
    return std::make_unique<Ping>();
}

}  // namespace qvtp::cli
