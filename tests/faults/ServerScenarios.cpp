#include "faults/Exchange.h"

#include <vector>

namespace qvtp_test::faults {

namespace {

constexpr std::size_t SMALL = 5;
constexpr std::size_t MEDIUM = 5000;
const std::string WHOLE = "/whole";

std::string withContext(const char* what, const std::string& outcome) {
    return outcome == RIGHT ? RIGHT : what + outcome;
}

/// A server's whole life: constructed, run, used once, stopped.
class ServerLife : public Scenario {
  public:
    std::string act() override {
        std::string constructed = thrownBy([this] {
            const Working working(SERVER);
            server_.construct();
        });
        if (constructed != "nothing") return constructed;
        server_.start();
        const bool runs = server_.waitUntilItRuns();
        std::string outcome = "does not run";
        if (runs) {
            const std::unique_ptr<QvtpClient> client = newClient();
            outcome = postWhole(*client, server_.name, WHOLE, SMALL);
        }
        server_.stop();
        return outcome;
    }
    /// The same name can be taken at once, and is served.
    std::string afterwards() override {
        server_.stop();
        server_.construct();
        server_.start();
        if (!server_.waitUntilItRuns()) return "the name cannot be served again";
        const std::unique_ptr<QvtpClient> client = newClient();
        const std::string outcome = postWhole(*client, server_.name, WHOLE, SMALL);
        server_.stop();
        return withContext("the next server: ", outcome);
    }
    /// The constructor of POCO's pool does not free the threads that it has started when a later one cannot be.
    bool mayLeave(const std::string& outcome) const override { return outcome == "does not run"; }

  protected:
    EchoServer server_;
};

/// Stopped while a handler works and a client is in the middle of its request.
class StopWhileBusy : public Scenario {
  public:
    void prepare() override {
        server_.construct();
        server_.start();
        server_.waitUntilItRuns();
        server_.handler.released = false;
        outcome_ = "none";
        busy_ = std::thread([this] {
            const std::unique_ptr<QvtpClient> client = newClient();
            outcome_ = postWhole(*client, server_.name, "/wait", SMALL);
        });
        soon([this] { return server_.handler.waiting == 1; });
    }
    std::string act() override {
        const std::unique_ptr<QvtpClient> idle = newClient();
        const std::string other = postWhole(*idle, server_.name, WHOLE, SMALL);
        server_.server->shutdown();
        server_.handler.released = true;
        server_.stop();
        busy_.join();
        if (other != RIGHT) return other;
        // The stop closes the pipe under the handler.
        return outcome_.compare(0, 5, "WRONG") == 0 ? outcome_ : RIGHT;
    }
    std::string afterwards() override {
        server_.stop();
        server_.handler.released = true;
        server_.construct();
        server_.start();
        if (!server_.waitUntilItRuns()) return "the name cannot be served again";
        const std::unique_ptr<QvtpClient> client = newClient();
        const std::string outcome = postWhole(*client, server_.name, WHOLE, SMALL);
        server_.stop();
        return withContext("the next server: ", outcome);
    }

  private:
    EchoServer server_;
    std::thread busy_;
    std::string outcome_;
};

/// More clients than workers: those that rest give way.
class HandOver : public Scenario {
  public:
    void setUp() override {
        server_.construct(1, 300);
        server_.start();
        server_.waitUntilItRuns();
    }
    std::string act() override {
        std::string first = RIGHT;
        std::vector<std::unique_ptr<QvtpClient>> clients;
        for (int i = 0; i < CLIENTS; ++i) {
            clients.push_back(newClient());
            const std::string outcome = postWhole(*clients.back(), server_.name, WHOLE, MEDIUM);
            if (first == RIGHT || outcome.compare(0, 5, "WRONG") == 0) first = outcome;
        }
        return first;
    }
    std::string afterwards() override {
        return withContext("the next clients: ", onceServed([this] { return act(); }));
    }
    void tearDown() override { server_.stop(); }

  private:
    static constexpr int CLIENTS = 5;
    EchoServer server_;
};

/// A client that stops in the middle of its request, and one that is silent.
class TimeOuts : public Scenario {
  public:
    void setUp() override {
        server_.construct(1, 20, 20);
        server_.start();
        server_.waitUntilItRuns();
    }
    std::string act() override {
        const std::string half = talk("POST /whole QVTP/1.0\r\nContent-Length: 5\r\n\r\nab");
        const std::string silent = talk("");
        return half != RIGHT ? half : silent;
    }
    std::string afterwards() override {
        const std::string timedOut = onceServed([this] { return act(); });
        if (timedOut != RIGHT) return "the next time-out: " + timedOut;
        const std::unique_ptr<QvtpClient> client = newClient();
        return withContext("the next exchange: ", postWhole(*client, server_.name, WHOLE, SMALL));
    }
    void tearDown() override { server_.stop(); }

  private:
    /// The server hangs up in time.
    std::string talk(const std::string& request) {
        std::string ending;
        const std::string thrown = thrownBy([&] {
            const Working working(CLIENT);
            Quovane::Io::QvPipe pipe;
            pipe.setConnectTimeout(CONNECT_LIMIT_MS);
            pipe.connect(server_.name, true, true);
            if (!request.empty()) pipe.writePipe(request.data(), 0, static_cast<int>(request.size()));
            char answer[500];
            int count = 1;
            const auto read = [&] { count = pipe.readPipe(answer, 0, sizeof answer, LIMIT_MS); };
            while (count > 0 && ending.empty()) {
                const std::string end = thrownBy(read);
                if (end != "nothing") ending = end;
            }
            if (count <= 0) ending = "end";
        });
        if (thrown != "nothing") return thrown;
        return ending == "end" || ending == "QvPipeException: QvPipe read failed." ? RIGHT : ending;
    }

    static constexpr int LIMIT_MS = 8000;
    static constexpr int CONNECT_LIMIT_MS = 2000;
    EchoServer server_;
};

template <typename Kind>
std::unique_ptr<Scenario> make() {
    return std::make_unique<Kind>();
}

}  // namespace

std::vector<Entry> serverScenarios() {
    return {
        {"life of a server", SERVER, make<ServerLife>, 5}, {"stop while busy", SERVER, make<StopWhileBusy>, 9, 2},
        {"hand-over", SERVER, make<HandOver>, 90, 5},      {"hand-over", CLIENT, make<HandOver>, 120, 4},
        {"time-outs", SERVER, make<TimeOuts>, 30, 3},      {"time-outs", CLIENT, make<TimeOuts>, 30, 2},
    };
}

}  // namespace qvtp_test::faults
