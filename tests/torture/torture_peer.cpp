// The two library sides of scripts/torture and scripts/soak.
//
//     torture_peer serve PIPE                    until its standard input ends
//     torture_peer load PIPE SECONDS THREADS [PAUSE]
//                                                well-behaved clients, with a pause of so many ms after each request;
//                                                prints what became of their requests
//     torture_peer once PIPE                     one POST; prints its answer, or how it failed
//
// With errors=FILE it logs ERROR lines, with log=FILE and bytes=FILE everything. With absent=wait clients connect
// often, and try again if they find no server.
//
// Every body says who has sent it and as which one, and ends with a checksum. The server checks and counts them, and
// gives each client the figures for its own.

#include <qvtp/qvtp.h>

#include "examples/BodyOf.h"
#include "examples/common.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace Quovane::Qvtp;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

// ---- Bodies ----

std::uint32_t checksum(const std::string& text) {  // FNV-1a
    std::uint32_t sum = 2166136261U;
    for (const char c : text) sum = (sum ^ static_cast<unsigned char>(c)) * 16777619U;
    return sum;
}

std::string sealed(const std::string& client, long number, std::size_t size) {
    std::string body = client + " " + std::to_string(number) + " ";
    std::minstd_rand random(static_cast<std::uint32_t>(number + static_cast<long>(size)));
    while (body.size() < size) body += static_cast<char>('!' + random() % 90);
    return body + " " + std::to_string(checksum(body));
}

bool isSealed(const std::string& body) {
    const std::size_t end = body.rfind(' ');
    return end != std::string::npos && std::to_string(checksum(body.substr(0, end))) == body.substr(end + 1);
}

// ---- The server ----

class Handler : public QvtpHandler {
  public:
    void handleNotify(QvtpServerRequest* request) override {
        const std::string body = example::bodyOf(*request);
        std::istringstream words(body);
        std::string client;
        long number = 0;
        words >> client >> number;
        const bool isWhole = isSealed(body);
        const std::lock_guard<std::mutex> guard(mutex_);
        Received& received = received_[client];
        if (!isWhole) {
            ++received.broken;
        } else {
            received.add(number);
        }
    }

    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        const std::string resource = request->getResource();
        std::string body = example::bodyOf(*request);
        if (resource == "/count") body = countOf(body);
        response->setStatusCode(QvtpMessage::STATUS_OK);
        if (resource == "/stream") {
            response->getBodyStream()->write(body.data(), static_cast<std::streamsize>(body.size()));
        } else {
            response->setBody(body.data(), body.size());
        }
        response->send();
    }

  private:
    /// Numbers from 1 on, each once, in almost any order.
    struct Received {
        void add(long number) {
            if (number <= upTo || !beyond.insert(number).second) ++doubled;
            for (; beyond.erase(upTo + 1) > 0; ++upTo) {
            }
        }
        std::size_t count() const { return static_cast<std::size_t>(upTo) + beyond.size(); }

        long upTo = 0;          // all of these
        std::set<long> beyond;  // and these
        long doubled = 0;
        long broken = 0;
    };

    std::string countOf(const std::string& client) {
        const std::lock_guard<std::mutex> guard(mutex_);
        const Received& received = received_[client];
        return std::to_string(received.count()) + " " + std::to_string(received.doubled) + " " +
               std::to_string(received.broken);
    }

    std::mutex mutex_;
    std::map<std::string, Received> received_;
};

int serve(const std::string& pipe) {
    Handler handler;
    QvtpServer server(pipe, 1);
    server.setHandler(&handler);
    server.setUnhandledExceptionPolicy(QvtpServer::ANSWER);
    server.setMakeRoom(true);
    server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 16);
    server.setOption(QvtpServer::IDLE_TIMEOUT, 1000);  // of a client that connects and says nothing
    QvtpServer::Limits limits;
    limits.headBytes = 65536;
    limits.headMs = 1000;
    limits.requestMs = 5000;
    server.setLimits(limits);
    auto run = std::async(std::launch::async, [&] { server.run(); });
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    const auto begin = Clock::now();
    server.shutdown();
    run.get();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
    std::printf("stopped after %lld ms\n", static_cast<long long>(took));
    return 0;
}

// ---- The clients ----

struct Tally {
    explicit Tally(bool waits) : waitsForServer(waits) {}

    const bool waitsForServer;
    std::atomic<long> posts{0}, notifies{0}, failed{0}, mixed{0}, lost{0}, doubled{0}, broken{0}, absent{0};
};

std::string post(QvtpClient& client, const std::string& pipe, const std::string& resource, const std::string& body,
                 bool streamed = false) {
    PostRequest request(&client, pipe, resource);
    std::istringstream stream(body);
    if (streamed) {
        request.setBodyStream(&stream);
    } else {
        request.setBody(body.data(), body.size());
    }
    const std::unique_ptr<QvtpResponse> response(request.execute());
    return std::to_string(response->getStatusCode()) + example::bodyOf(*response);
}

/// A request that found no server was not sent: it may be made again, if that is to be expected.
template <typename Work>
void whereServerIs(Tally& tally, const Work& work) {
    const auto end = Clock::now() + 20s;
    for (;;) {
        try {
            return work();
        } catch (Quovane::Io::QvPipeException& e) {
            // The second one ends the wait of a client whose directory has gone.
            const std::string text = e.getMessage();
            const bool isAbsent = text == "Could not connect to pipe." || text == "Timed out connecting to pipe";
            if (!tally.waitsForServer || !isAbsent || Clock::now() > end) throw;
        }
        ++tally.absent;
        std::this_thread::sleep_for(2ms);
    }
}

/// A failure of a request of a well-behaved client is a finding.
template <typename Work>
bool succeeds(Tally& tally, const Work& work) {
    if (example::run([&] { whereServerIs(tally, work); }) == 0) return true;
    ++tally.failed;
    return false;
}

void behaveWell(const std::string& pipe, Clock::time_point end, int index, int pauseMs, Tally& tally) {
    const std::string name =
        std::to_string(std::chrono::system_clock::now().time_since_epoch().count()) + "-" + std::to_string(index);
    std::minstd_rand random(static_cast<std::uint32_t>(index + 1));
    auto owned = std::make_unique<QvtpClient>();
    long sent = 0;
    while (Clock::now() < end) {
        if (tally.waitsForServer && random() % 4 == 0) owned = std::make_unique<QvtpClient>();  // it connects anew
        QvtpClient& client = *owned;
        const std::size_t size = std::size_t{1} << random() % 18;
        const std::string body = sealed(name, sent + 1, size + random() % size);
        const auto kind = random() % 4;
        if (kind == 0) {
            const bool arrived = succeeds(tally, [&] {
                NotifyRequest request(&client, pipe, "/note");
                request.setBody(body.data(), body.size());
                request.execute();
            });
            if (arrived) ++sent;
            ++tally.notifies;
        } else {
            succeeds(tally, [&] {
                const char* const resource = kind == 1 ? "/stream" : "/whole";
                if (post(client, pipe, resource, body, kind == 2) != "200" + body) ++tally.mixed;
            });
            ++tally.posts;
        }
        if (pauseMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        if (random() % 64 == 0) std::this_thread::sleep_for(30ms);  // silent enough to be asked to make room
    }
    // What was notified may still be on its way to a handler.
    long received = 0, doubled = 0, broken = 0;
    const auto last = Clock::now() + 20s;
    do {
        std::this_thread::sleep_for(20ms);
        succeeds(tally, [&] {
            std::istringstream(post(*owned, pipe, "/count", name).substr(3)) >> received >> doubled >> broken;
        });
    } while (received < sent && Clock::now() < last);
    tally.lost += sent - received;
    tally.doubled += doubled;
    tally.broken += broken;
}

int load(const std::string& pipe, double seconds, int threads, int pauseMs, bool waitsForServer) {
    Tally tally(waitsForServer);
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::vector<std::future<void>> clients;
    for (int i = 0; i < threads; ++i) {
        clients.push_back(std::async(std::launch::async, [&, i] { behaveWell(pipe, end, i, pauseMs, tally); }));
    }
    for (auto& client : clients) client.get();
    std::printf("%ld posts, %ld notifications: %ld failed, %ld lost, %ld doubled, %ld mixed, %ld broken\n",
                tally.posts.load(), tally.notifies.load(), tally.failed.load(), tally.lost.load(), tally.doubled.load(),
                tally.mixed.load(), tally.broken.load());
    if (waitsForServer) std::printf("%ld connects found no server and were made again\n", tally.absent.load());
    const long bad = tally.failed + tally.lost + tally.doubled + tally.mixed + tally.broken;
    return bad == 0 && tally.posts > 0 && tally.notifies > 0 ? 0 : 1;
}

int once(const std::string& pipe) {
    QvtpClient client;
    std::string answer;
    const int result = example::run([&] { answer = post(client, pipe, "/whole", "request"); });
    if (result == 0) std::puts(answer.c_str());
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> options;
    std::vector<std::string> words;
    for (const std::string& word : std::vector<std::string>(argv + 1, argv + argc)) {
        const std::size_t sign = word.find('=');
        if (sign == std::string::npos) {
            words.push_back(word);
        } else {
            options[word.substr(0, sign)] = word.substr(sign + 1);
        }
    }
    if (options.count("errors") > 0) {
        QvtpMessage::setLoggingLevel(std::fopen(options["errors"].c_str(), "w"), LoggingLevel::ERROR, nullptr,
                                     CommunicationLevel::OFF);
    } else if (options.count("log") > 0) {
        example::logTo(options["log"].c_str(), options["bytes"].c_str());
    }
    const std::string mode = words.size() > 1 ? words[0] : "";
    if (mode == "serve") return serve(words[1]);
    if (mode == "load" && words.size() > 3) {
        const int pauseMs = words.size() > 4 ? std::stoi(words[4]) : 0;
        return load(words[1], std::stod(words[2]), std::stoi(words[3]), pauseMs, options["absent"] == "wait");
    }
    if (mode == "once") return once(words[1]);
    std::fprintf(stderr, "usage: torture_peer serve PIPE | load PIPE SECONDS THREADS [PAUSE] | once PIPE\n");
    return 2;
}
