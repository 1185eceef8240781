// What the fragments of the pages stand in. check.py puts each of them into a frame of the folder frames, and all of
// them into one program.
#pragma once

#include <qvtp/easy.h>
#include <qvtp/qvtp.h>

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <future>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace pages {

using namespace std::chrono_literals;

/// Fails the fragment.
inline void require(bool isRight, const std::string& text) {
    if (!isRight) throw std::runtime_error(text);
}

inline void awaitServer(const std::string& name) {
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (Quovane::Io::findPipeFacts(name).state != Quovane::Io::PipeFacts::State::SERVED) {
        require(std::chrono::steady_clock::now() < end, "nobody serves " + name);
        std::this_thread::sleep_for(1ms);
    }
}

/// The server that the fragments of clients talk to: it answers whatever it is asked.
class Greetings {
  public:
    Greetings() : server_("greetings") {
        server_.onPost("*", [](const qvtp::Request& request) { return qvtp::Reply("Hello " + request.body()); });
        server_.onNotify("*", [](const qvtp::Request&) {});
        server_.start();
    }

  private:
    qvtp::Server server_;
};

/// A client of a server that a fragment runs until a signal comes. It asks for each resource, and then sends the
/// signal.
class Visitor {
  public:
    explicit Visitor(std::vector<std::string> resources) {
        done_ = std::async(std::launch::async, [resources = std::move(resources)] {
            awaitServer("greetings");
            std::string statuses;
            {
                qvtp::Client client("greetings", 30s);
                for (const std::string& resource : resources) {
                    statuses += std::to_string(client.post(resource, "world").status()) + " ";
                }
                client.notify("/log", "it works");
            }
            ::kill(::getpid(), SIGTERM);
            return statuses;
        });
    }
    std::string statuses() { return done_.get(); }

  private:
    std::future<std::string> done_;
};

/// The handler of the exact classes.
struct Greeter : Quovane::Qvtp::QvtpHandler {
    void handleNotify(Quovane::Qvtp::QvtpServerRequest*) override {}
    void handlePost(Quovane::Qvtp::QvtpServerRequest*, Quovane::Qvtp::QvtpServerResponse* response) override {
        response->setStatusCode(Quovane::Qvtp::QvtpMessage::STATUS_OK);
        response->setBody("Hello", 5);
        response->send();
    }
};

/// A server of the exact classes, which runs from `run()` to its end.
class ExactServer {
  public:
    explicit ExactServer(Quovane::Qvtp::QvtpHandler& handler) { server.setHandler(&handler); }
    ~ExactServer() { server.shutdown(); }
    void run() {
        ended_ = std::async(std::launch::async, [this] { server.run(); });
        while (!server.isRunning()) require(ended_.wait_for(1ms) != std::future_status::ready, "it does not run");
    }
    Quovane::Qvtp::QvtpServer server{"greetings", 1};

  private:
    std::future<void> ended_;
};

inline int statusOf(const std::string& resource) {
    return qvtp::Client("greetings", 30s).post(resource, "world").status();
}

}  // namespace pages
