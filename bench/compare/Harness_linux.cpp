#include "Harness.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;
using Work = std::function<void()>;

constexpr auto WARM_UP = std::chrono::milliseconds(15);
constexpr auto LONGEST_DELIVERY = std::chrono::seconds(5);
constexpr int WARM_UP_REQUESTS = 10;
constexpr std::size_t COUNT_AT = 8;  // where requests and answers carry the number of one-way messages
constexpr std::size_t BATCH = 500;   // messages that are not answered, before one that is

Setup setup;
/// The server's count of messages without an answer. Some peers send them on a connection of their own, so that an
/// answer may have to wait for them.
class Intake {
  public:
    void add() {
        if (++count_ != awaited_) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        arrived_.notify_all();
    }

    /// How many there are, once there are so many.
    std::uint64_t await(std::uint64_t number) {
        awaited_ = number;
        std::unique_lock<std::mutex> lock(mutex_);
        arrived_.wait_for(lock, LONGEST_DELIVERY, [&] { return count_ >= number; });
        return count_;
    }

  private:
    std::atomic<std::uint64_t> count_{0};
    std::atomic<std::uint64_t> awaited_{0};
    std::mutex mutex_;
    std::condition_variable arrived_;
} intake;

thread_local std::uint64_t notified = 0;                // client: the same
thread_local const std::string* outstanding = nullptr;  // client: the request of which the response is awaited

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

double cpuSeconds(const rusage& usage) {
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

rusage usageNow() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage;
}

/// The most memory that was resident, in KiB. Not that of getrusage(), which counts what the parent had at the fork.
long peakMemory() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return 0;
}

void printUsage() {
    std::printf("{\"cpu\": %.6f, \"memory\": %ld}\n", cpuSeconds(usageNow()), peakMemory());
    std::fflush(stdout);
}

/// Answers each line with what the server has used so far, and ends the process with the input.
void answerDriver() {
    std::string line;
    while (std::getline(std::cin, line)) printUsage();
    std::fflush(stdout);
    ::_exit(0);
}

/// A request whose bytes differ from the one before, so that a response of yesterday is noticed.
class Payload {
  public:
    explicit Payload(std::size_t size) : body_(std::max<std::size_t>(size, 3), 'x') {}

    /// What the request says about the one-way messages before it.
    void announce(std::uint64_t count) { std::memcpy(&body_[COUNT_AT], &count, sizeof count); }

    const std::string& next(char kind) {
        ++number_;
        body_.front() = kind;
        body_[1] = body_.back() = static_cast<char>(number_);
        return body_;
    }

  private:
    std::string body_;
    unsigned char number_ = 0;
};

void post(Connection& connection, Payload& payload) {
    outstanding = &payload.next(WANTS_ANSWER);
    connection.post(*outstanding);
    if (outstanding != nullptr) fail("a response was not checked");
}

/// The rate of one-way messages is that of their delivery: the answer at the end of a batch says how many arrived.
void sendBatch(Connection& connection, Payload& payload) {
    for (std::size_t i = 0; i < BATCH; ++i) {
        connection.notify(payload.next(NO_ANSWER));
        ++notified;
    }
    payload.announce(notified);
    post(connection, payload);
}

/// One client thread: its connection, and what it has measured.
class Client {
  public:
    explicit Client(Contender& contender) : contender_(contender), payload_(setup.requestSize) {}

    void warmUp() {
        if (setup.workload != "connect") connection_ = contender_.connect(setup);
        const auto end = Clock::now() + WARM_UP;
        for (int i = 0; i < WARM_UP_REQUESTS || Clock::now() < end; ++i) {
            step();
            if (setup.oneWay() && Clock::now() > end) break;  // a batch is long enough
        }
    }

    void measure(Clock::time_point end) {
        latencies_.reserve(1 << 16);
        for (auto before = Clock::now(); before < end;) {
            step();
            const auto after = Clock::now();
            latencies_.push_back(std::chrono::duration<double>(after - before).count() / perStep());
            before = after;
        }
    }

    void step() {
        if (setup.oneWay()) {
            sendBatch(*connection_, payload_);
        } else if (setup.workload == "connect") {
            const auto connection = contender_.connect(setup);
            post(*connection, payload_);
        } else {
            post(*connection_, payload_);
        }
    }

    /// On the thread that has connected: some peers insist.
    void disconnect() { connection_.reset(); }

    static double perStep() { return setup.oneWay() ? static_cast<double>(BATCH + 1) : 1.0; }
    const std::vector<double>& latencies() const { return latencies_; }

  private:
    Contender& contender_;
    std::unique_ptr<Connection> connection_;
    Payload payload_;
    std::vector<double> latencies_;
};

/// Holds threads until it is opened.
class Gate {
  public:
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        opened_.wait(lock, [this] { return open_; });
    }
    void open() {
        const std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

void waitForDriver() {
    ready();
    std::string line;
    if (!std::getline(std::cin, line)) fail("the driver has gone");
}

Clock::time_point endOfMeasuring() {
    return Clock::now() + std::chrono::milliseconds(setup.ms);
}

void guarded(const Work& work) {
    try {
        work();
    } catch (const std::exception& e) {
        std::cerr << "client: " << e.what() << std::endl;
        ::_exit(1);
    }
}

/// All clients at once, each on a thread of its own.
void measureThreads(std::vector<std::unique_ptr<Client>>& clients, const std::function<void(const Work&)>& timed) {
    Gate gate;
    std::atomic<std::size_t> warm{0};
    std::atomic<Clock::time_point> end{};
    std::vector<std::thread> threads;
    for (const auto& client : clients) {
        threads.emplace_back([&, own = client.get()] {
            guarded([&] {
                own->warmUp();
                ++warm;
                gate.wait();
                own->measure(end);
                own->disconnect();
            });
        });
    }
    while (warm < clients.size()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    waitForDriver();
    timed([&] {
        end = endOfMeasuring();
        gate.open();
        for (std::thread& thread : threads) thread.join();
    });
}

void report(const std::vector<std::unique_ptr<Client>>& clients, double seconds, double cpu) {
    std::vector<double> all;
    for (const auto& client : clients) all.insert(all.end(), client->latencies().begin(), client->latencies().end());
    if (all.empty()) fail("nothing was measured");
    std::sort(all.begin(), all.end());
    const auto percentile = [&](std::size_t p) { return all[(all.size() - 1) * p / 100] * 1e6; };
    std::printf(
        "{\"requests\": %.0f, \"seconds\": %.6f, \"p50\": %.3f, \"p99\": %.3f, \"cpu\": %.6f, \"memory\": %ld}\n",
        static_cast<double>(all.size()) * Client::perStep(), seconds, percentile(50), percentile(99), cpu,
        peakMemory());
    std::fflush(stdout);
}

void runClient(Contender& contender) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < setup.clients; ++i) clients.push_back(std::make_unique<Client>(contender));
    const auto timed = [&](const Work& work) {
        const double cpu = cpuSeconds(usageNow());
        const auto start = Clock::now();
        work();
        report(clients, std::chrono::duration<double>(Clock::now() - start).count(), cpuSeconds(usageNow()) - cpu);
    };
    if (setup.clients == 1) {
        clients.front()->warmUp();
        waitForDriver();
        timed([&] { clients.front()->measure(endOfMeasuring()); });
    } else {
        measureThreads(clients, timed);
    }
}

void runOnce(Contender& contender) {
    Payload payload(setup.requestSize);
    post(*contender.connect(setup), payload);
}

}  // namespace

void Connection::notify(const std::string&) {
    fail("no one-way messages");
}

std::string_view answerTo(const char* request, std::size_t size) {
    if (size != setup.requestSize || request[0] != WANTS_ANSWER || request[1] != request[size - 1]) {
        std::cerr << "server: not what was sent" << std::endl;
        ::_exit(1);
    }
    if (setup.responseSize == setup.requestSize && !setup.oneWay()) return {request, size};
    thread_local std::string answer;
    answer.assign(setup.responseSize, '\0');
    if (setup.oneWay()) {
        std::uint64_t count = 0;
        std::memcpy(&count, request + COUNT_AT, sizeof count);
        count = intake.await(count);
        std::memcpy(&answer[COUNT_AT], &count, sizeof count);
    }
    answer.back() = request[1];
    return answer;
}

void takeIn(const char* request, std::size_t size) {
    if (size != setup.requestSize || request[0] != NO_ANSWER || request[1] != request[size - 1]) {
        std::cerr << "server: not what was sent" << std::endl;
        ::_exit(1);
    }
    intake.add();
}

void checkResponse(const char* response, std::size_t size) {
    if (outstanding == nullptr) fail("a response that nobody awaits");
    const std::string& request = *std::exchange(outstanding, nullptr);
    if (size != setup.responseSize || response[size - 1] != request[1]) fail("not the response to this request");
    if (setup.oneWay()) {
        std::uint64_t count = 0;
        std::memcpy(&count, response + COUNT_AT, sizeof count);
        if (count != notified)
            fail("one-way messages were lost: " + std::to_string(count) + " of " + std::to_string(notified) +
                 " arrived");
    } else if (setup.responseSize == setup.requestSize && (response[0] != request[0] || response[1] != request[1])) {
        fail("not what was sent");
    }
}

void ready() {
    std::puts("ready");
    std::fflush(stdout);
}

int main(int argc, char** argv, Contender& contender) {
    if (argc < 8) return 2;
    std::signal(SIGPIPE, SIG_IGN);
    const std::string role = argv[1];
    setup.variant = argv[2];
    setup.address = argv[3];
    setup.requestSize = std::strtoul(argv[4], nullptr, 10);
    setup.responseSize = std::strtoul(argv[5], nullptr, 10);
    setup.clients = std::atoi(argv[6]);
    setup.workload = argv[7];
    setup.ms = argc > 8 ? std::atoi(argv[8]) : 0;
    try {
        if (role == "server") {
            std::thread(answerDriver).detach();
            contender.serve(setup);
            ::pause();
        } else if (setup.workload == "once") {
            runOnce(contender);
        } else {
            runClient(contender);
        }
    } catch (const std::exception& e) {
        std::cerr << role << ": " << e.what() << std::endl;
        return 1;
    }
    return 0;
}

}  // namespace bench
