#pragma once

#include <qvtp/easy.h>

#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <thread>

namespace qvtp_test {

using namespace std::chrono_literals;
using qvtp::Client;
using qvtp::ErrorKind;
using qvtp::Reply;
using qvtp::Request;
using qvtp::Server;

/// The error that an action throws; nothing if it returns.
template <typename Action>
std::optional<qvtp::Error> errorOf(const Action& action) {
    try {
        action();
    } catch (const qvtp::Error& e) {
        return e;
    }
    return std::nullopt;
}

/// The name of its kind, "nothing" if the action returns.
template <typename Action>
std::string kindOf(const Action& action) {
    const auto error = errorOf(action);
    return error ? nameOf(error->kind()) : "nothing";
}

/// What an action throws that is not of the library.
template <typename Action>
std::string whatOf(const Action& action) {
    try {
        action();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "nothing";
}

/// A server with a few resources, and a client of it.
class Easy : public ::testing::Test {
  protected:
    Easy() {
        server.onPost("/echo", [](const Request& request) { return Reply(request.body()); });
        server.onPost("/throw", [](const Request&) -> Reply { throw std::runtime_error("it rains"); });
        server.onNotify("/log", [this](const Request& request) { logged.set_value(request.body()); });
        server.onError([this](const Request& request, const std::string& text) {
            errors += request.method() + " " + request.resource() + ": " + text + "\n";
        });
    }

    const std::string name = uniquePipeName();
    std::promise<std::string> logged;
    std::string errors;
    Server server{name};
    Client client{name, 10s};
};

/// A server of raw bytes on a thread: for each connection it reads a head, writes this, and closes.
class RawReplies {
  public:
    explicit RawReplies(std::string reply) : reply_(std::move(reply)) {}
    ~RawReplies() {
        server_.close();
        thread_.join();
    }

    const std::string name = uniquePipeName();

  private:
    void serve() {
        try {
            for (;;) {
                const auto pipe = server_.accept();
                RawServer::readUntil(*pipe, "\r\n\r\n");
                RawServer::write(*pipe, reply_);
            }
        } catch (const std::exception&) {  // closed
        } catch (const Quovane::Io::IllegalStateException&) {
        }
    }

    const std::string reply_;
    RawServer server_{name};
    std::thread thread_{[this] { serve(); }};
};

}  // namespace qvtp_test
