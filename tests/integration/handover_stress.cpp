// More clients than workers, in one process: what each scenario sent, and what became of it. Fails if a request was
// lost, executed twice or answered with another's answer.
//
//     handover_stress notify EMITTERS COUNT RUNS
//     handover_stress post THREADS COUNT [BODY_BYTES]
//     handover_stress shared THREADS COUNT           the same on one QvtpClient
//     handover_stress pace CLIENTS COUNT             one POST every 100 ms each
//     handover_stress hold CLIENTS                   one POST each, then the pipe is kept
//     handover_stress flood SECONDS CLIENTS FLOODERS  some never stop to notify, each for a millisecond; the others
//     post,
//                                                     and wait for a step and a half of the server's at most
//     handover_stress edge CLIENTS COUNT             requests at the end of the idle time-out

#include <qvtp/qvtp.h>

#include "examples/BodyOf.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using namespace Quovane::Qvtp;
using Clock = std::chrono::steady_clock;

std::string pipeName() {
    std::random_device random;
    return "handover-stress-" + std::to_string(random()) + std::to_string(random());
}

using example::bodyOf;

std::string textOf(Quovane::Io::QvPipeException& e) {
    return e.getMessage();
}

/// Runs an action and returns what it threw, or nothing.
std::string failureOf(const std::function<void()>& action) {
    try {
        action();
        return {};
    } catch (Quovane::Io::QvPipeException& e) {
        return textOf(e);
    } catch (const Quovane::Io::IllegalStateException& e) {
        return e.getMessage();
    } catch (const std::exception& e) {
        return e.what();
    }
}

constexpr double STEP_AND_A_HALF_MS = 1950;  // of a server on its defaults

/// Counts what was executed, by the id with which each body begins; answers with the body.
class Counting : public QvtpHandler {
  public:
    /// `work`: how long each request takes.
    explicit Counting(std::chrono::milliseconds work) : work_(work) {}

    void handleNotify(QvtpServerRequest* request) override { count(bodyOf(*request)); }

    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        const std::string body = bodyOf(*request);
        count(body);
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(body.data(), body.size());
        response->send();
    }

    int timesOf(const std::string& id) const {
        const std::lock_guard<std::mutex> guard(mutex_);
        const auto found = times_.find(id);
        return found != times_.end() ? found->second : 0;
    }

  private:
    void count(const std::string& body) {
        if (work_ > 0ms) std::this_thread::sleep_for(work_);
        const std::lock_guard<std::mutex> guard(mutex_);
        ++times_[body.substr(0, body.find(' '))];
    }

    const std::chrono::milliseconds work_;
    mutable std::mutex mutex_;
    std::map<std::string, int> times_;  // guarded by mutex_
};

/// A server on its defaults.
class Server {
  public:
    explicit Server(int idleTimeoutMs = 0, std::chrono::milliseconds work = 0ms) : handler(work), server_(name, 1) {
        if (idleTimeoutMs > 0) server_.setOption(QvtpServer::IDLE_TIMEOUT, idleTimeoutMs);
        server_.setHandler(&handler);
        thread_ = std::thread([this] { server_.run(); });
        while (!server_.isRunning()) std::this_thread::yield();
    }
    ~Server() {
        server_.shutdown();
        thread_.join();
    }

    const std::string name = pipeName();
    Counting handler;

  private:
    QvtpServer server_;
    std::thread thread_;
};

/// What was sent, by all threads.
class Report {
  public:
    void add(const std::string& id, const std::string& failure, Clock::duration time) {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (failure.empty()) {
            accepted_.push_back(id);
        } else {
            ++failures_[failure];
            failed_.push_back(id);
        }
        times_.push_back(std::chrono::duration<double, std::milli>(time).count());
    }

    /// Everything that was accepted was executed once. NOTIFY may still be on its way.
    bool print(const std::string& scenario, const Counting& handler, Clock::duration total) {
        const auto end = Clock::now() + 15s;
        const auto isMissing = [&](const std::string& id) { return handler.timesOf(id) == 0; };
        while (std::any_of(accepted_.begin(), accepted_.end(), isMissing) && Clock::now() < end) {
            std::this_thread::sleep_for(10ms);
        }
        int lost = 0;
        int doubled = 0;
        int failedButDone = 0;
        for (const std::string& id : accepted_) {
            const int times = handler.timesOf(id);
            lost += times == 0;
            doubled += times > 1;
        }
        for (const std::string& id : failed_) failedButDone += handler.timesOf(id) > 0;
        std::sort(times_.begin(), times_.end());
        const auto sum = [&] {
            double all = 0;
            for (const double time : times_) all += time;
            return all;
        };
        std::printf(
            "%s: %zu sent, %zu failed (%d of them executed), %d lost, %d doubled; %.2f s; ms: mean %.2f, p99 %.1f, "
            "worst %.1f\n",
            scenario.c_str(), times_.size(), failed_.size(), failedButDone, lost, doubled,
            std::chrono::duration<double>(total).count(), sum() / static_cast<double>(times_.size()),
            times_[times_.size() * 99 / 100], times_.back());
        for (const auto& [failure, count] : failures_) std::printf("    %d x %s\n", count, failure.c_str());
        std::fflush(stdout);
        return lost == 0 && doubled == 0 && failed_.empty();
    }

    double worst() const { return times_.back(); }

  private:
    std::mutex mutex_;
    std::vector<std::string> accepted_;
    std::vector<std::string> failed_;
    std::vector<double> times_;
    std::map<std::string, int> failures_;
};

void notify(QvtpClient& client, const std::string& name, const std::string& body) {
    NotifyRequest request(&client, name, "/n");
    request.setBody(body.data(), body.size());
    request.execute();
}

void post(QvtpClient& client, const std::string& name, const std::string& body) {
    PostRequest request(&client, name, "/p");
    request.setBody(body.data(), body.size());
    const std::unique_ptr<QvtpResponse> response(request.execute());
    if (response->getStatusCode() != QvtpMessage::STATUS_OK) throw std::runtime_error("status");
    if (bodyOf(*response) != body) throw std::runtime_error("another's answer");
}

using Send = void (*)(QvtpClient&, const std::string&, const std::string&);

/// One client's part: `count` requests, each with an id of its own.
void sendMany(
    Report& report, const Server& server, QvtpClient& client, Send send, int thread, int count, std::size_t size = 0,
    const std::function<void()>& pause = [] {}) {
    for (int i = 0; i < count; ++i) {
        const std::string id = std::to_string(thread) + "-" + std::to_string(i);
        std::string body = id + " ";
        if (body.size() < size) body.resize(size, 'x');
        const auto start = Clock::now();
        const std::string failure = failureOf([&] { send(client, server.name, body); });
        report.add(id, failure, Clock::now() - start);
        pause();
    }
}

/// Runs `count` threads to their end, which begin together.
Clock::duration inThreads(int count, const std::function<void(int)>& work) {
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            while (!go) std::this_thread::yield();
            work(i);
        });
    }
    const auto start = Clock::now();
    go = true;
    for (std::thread& thread : threads) thread.join();
    return Clock::now() - start;
}

bool runNotify(int emitters, int count, int runs) {
    bool good = true;
    for (int run = 0; run < runs; ++run) {
        const Server server;
        Report report;
        const auto total = inThreads(emitters, [&](int i) {
            QvtpClient client;
            sendMany(report, server, client, notify, i, count);
        });
        good =
            report.print("notify " + std::to_string(emitters) + " x " + std::to_string(count), server.handler, total) &&
            good;
    }
    return good;
}

bool runPost(int threads, int count, std::size_t size) {
    const Server server;
    Report report;
    const auto total = inThreads(threads, [&](int i) {
        QvtpClient client;
        sendMany(report, server, client, post, i, count, size);
    });
    return report.print("post " + std::to_string(threads) + " x " + std::to_string(count), server.handler, total);
}

bool runShared(int threads, int count) {
    const Server server;
    Report report;
    QvtpClient client;
    const auto total = inThreads(threads, [&](int i) { sendMany(report, server, client, post, i, count); });
    return report.print("shared " + std::to_string(threads) + " x " + std::to_string(count), server.handler, total);
}

bool runPace(int clients, int count) {
    const Server server;
    Report report;
    const auto total = inThreads(clients, [&](int i) {
        QvtpClient client;
        std::this_thread::sleep_for(100ms * i / clients);
        auto next = Clock::now();
        sendMany(report, server, client, post, i, count, 0, [&] { std::this_thread::sleep_until(next += 100ms); });
    });
    return report.print("pace " + std::to_string(clients), server.handler, total);
}

/// The pipes stay open until all have been answered. Each request takes a while, so that the others wait when the first
/// is answered: a client that was silent before anybody waited keeps its worker.
bool runHold(int clients) {
    const Server server(0, 20ms);
    Report report;
    std::vector<std::unique_ptr<QvtpClient>> holders;
    for (int i = 0; i < clients; ++i) holders.push_back(std::make_unique<QvtpClient>());
    const auto total =
        inThreads(clients, [&](int i) { sendMany(report, server, *holders[static_cast<std::size_t>(i)], post, i, 1); });
    return report.print("hold " + std::to_string(clients), server.handler, total);
}

bool runFlood(int seconds, int clients, int flooders) {
    const Server server(0, 1ms);
    Report flood;
    Report report;
    std::atomic<bool> stop{false};
    std::vector<std::thread> floods;
    for (int flooder = 0; flooder < flooders; ++flooder) {
        floods.emplace_back([&, flooder] {
            QvtpClient client;
            for (int i = 0; !stop; ++i) {
                const std::string id = "flood-" + std::to_string(flooder) + "-" + std::to_string(i);
                const auto start = Clock::now();
                const std::string failure = failureOf([&] { notify(client, server.name, id + " "); });
                flood.add(id, failure, Clock::now() - start);
            }
        });
    }
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    const auto total = inThreads(clients, [&](int i) {
        QvtpClient client;
        for (int round = 0; Clock::now() < end; ++round) {
            sendMany(report, server, client, post, i * 1000000 + round, 1);
            std::this_thread::sleep_for(1ms);
        }
    });
    stop = true;
    for (std::thread& thread : floods) thread.join();
    const bool isWhole = flood.print("flood of " + std::to_string(flooders), server.handler, total);
    return report.print("beside it " + std::to_string(clients), server.handler, total) && isWhole &&
           report.worst() <= STEP_AND_A_HALF_MS;
}

bool runEdge(int clients, int count) {
    constexpr auto IDLE = 50ms;
    const Server server(static_cast<int>(IDLE.count()));
    Report report;
    const auto total = inThreads(clients, [&](int i) {
        QvtpClient client;
        std::mt19937 random(static_cast<unsigned>(i));
        std::uniform_int_distribution<int> jitter(-300, 300);
        sendMany(report, server, client, i % 2 == 0 ? post : notify, i, count, 0,
                 [&] { std::this_thread::sleep_for(IDLE + std::chrono::microseconds(jitter(random))); });
    });
    return report.print("edge " + std::to_string(clients) + " x " + std::to_string(count), server.handler, total);
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const auto number = [&](std::size_t index, int otherwise) {
        return index < arguments.size() ? std::atoi(arguments[index].c_str()) : otherwise;
    };
    const std::string scenario = arguments.empty() ? "" : arguments[0];
    bool good = false;
    if (scenario == "notify") {
        good = runNotify(number(1, 20), number(2, 100), number(3, 1));
    } else if (scenario == "post") {
        good = runPost(number(1, 40), number(2, 250), static_cast<std::size_t>(number(3, 0)));
    } else if (scenario == "shared") {
        good = runShared(number(1, 6), number(2, 2000));
    } else if (scenario == "pace") {
        good = runPace(number(1, 6), number(2, 50));
    } else if (scenario == "hold") {
        good = runHold(number(1, 40));
    } else if (scenario == "flood") {
        good = runFlood(number(1, 5), number(2, 10), number(3, 3));
    } else if (scenario == "edge") {
        good = runEdge(number(1, 10), number(2, 20));
    } else {
        std::fprintf(stderr, "usage: handover_stress notify|post|shared|pace|hold|flood|edge ...\n");
        return 2;
    }
    return good ? 0 : 1;
}
