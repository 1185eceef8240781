// qvtp bench

#include "cli/Command.h"
#include "cli/Durations.h"
#include "cli/Numbers.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace qvtp::cli {

namespace {

using Clock = std::chrono::steady_clock;

class Bench : public Command {
  public:
    CLI::App* addTo(CLI::App& program) override {
        CLI::App* const app = program.add_subcommand("bench", "Measure how long POSTs to a server take");
        app->add_option("PIPE", pipe_, "The name of the pipe")->required();
        app->add_option("RESOURCE", resource_, "What the requests are about")->capture_default_str();
        accept(app->add_option("-n,--requests", requests_, "How many in all"), Unit::NUMBER, 1, 100000000)
            ->capture_default_str();
        accept(app->add_option("-c,--clients", clients_, "How many clients at once, each with a connection of its own"),
               Unit::NUMBER, 1, 1000)
            ->capture_default_str();
        accept(app->add_option("-s,--size", size_, "Bytes of each body"), Unit::BYTES, 0, MOST_BYTES)
            ->capture_default_str();
        acceptSeconds(app->add_option("--timeout", timeout_, "Seconds to wait for each reply; 0: no limit"))
            ->capture_default_str();
        app->add_flag("--json", isJson_, "Print the result as JSON");
        return app;
    }

    int run() override {
        const Clock::time_point begin = Clock::now();
        std::vector<std::thread> threads;
        threads.reserve(static_cast<std::size_t>(clients_));
        try {
            for (int i = 0; i < clients_; ++i) threads.emplace_back([this] { sendSome(); });
        } catch (const std::system_error&) {  // the system has no more threads
            if (failures_++ == 0) failure_ = std::current_exception();
        }
        for (std::thread& thread : threads) thread.join();
        if (failure_ != nullptr) std::rethrow_exception(failure_);
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        report(static_cast<double>(all_.count()) / seconds);
        return otherStatuses_ == 0 ? OK : OTHER_STATUS;
    }

  private:
    void sendSome() {
        Durations own;
        try {
            Client client(pipe_, millisecondsOf(timeout_));
            const std::string body(static_cast<std::size_t>(size_), 'x');
            while (failures_ == 0 && begun_.fetch_add(1) < requests_) {
                const Clock::time_point begin = Clock::now();
                const Reply reply = client.post(resource_, body);
                own.add(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
                if (!reply.ok()) ++otherStatuses_;
            }
        } catch (...) {
            if (failures_++ == 0) failure_ = std::current_exception();
        }
        const std::lock_guard<std::mutex> guard(mutex_);
        all_.add(own);
    }

    void report(double rate) const {
        if (isJson_) {
            std::cout << textOf(Json{{"requests", all_.count()},
                                     {"clients", clients_},
                                     {"perSecond", rate},
                                     {"otherStatuses", otherStatuses_.load()},
                                     {"us", all_.json()}});
            return;
        }
        char rateText[32];
        std::snprintf(rateText, sizeof rateText, "%.0f", rate);
        std::cout << all_.count() << " requests of " << clients_ << (clients_ == 1 ? " client, " : " clients, ")
                  << rateText << " per second\n"
                  << all_.summary() << "\n"
                  << all_.histogram();
        if (otherStatuses_ > 0) std::cout << otherStatuses_ << " replies with another status than 2xx\n";
    }

    std::string pipe_, resource_ = "/";
    std::int64_t requests_ = 10000, size_ = 64;
    int clients_ = 1;
    double timeout_ = 30;
    bool isJson_ = false;
    std::atomic<std::int64_t> begun_{0}, otherStatuses_{0};
    std::atomic<int> failures_{0};
    std::exception_ptr failure_;  // of the first thread that failed; read when all have ended
    std::mutex mutex_;            // guards all_ while threads run
    Durations all_;
};

}  // namespace

std::unique_ptr<Command> makeBench() {
    return std::make_unique<Bench>();
}

}  // namespace qvtp::cli
