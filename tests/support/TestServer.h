#pragma once

#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>
#include <qvtp/server/QvtpServerResponse.h>

#include "examples/BodyOf.h"
#include "support/PipeName.h"
#include "support/Watchdog.h"

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace qvtp_test {

using example::bodyOf;

/// A handler made of two functions. By default a POST is answered with its own body.
class TestHandler : public Quovane::Qvtp::QvtpHandler {
  public:
    using Request = Quovane::Qvtp::QvtpServerRequest;
    using Response = Quovane::Qvtp::QvtpServerResponse;

    void handleNotify(Request* request) override { onNotify(*request); }
    void handlePost(Request* request, Response* response) override { onPost(*request, *response); }

    std::function<void(Request&)> onNotify = [](Request&) {};
    std::function<void(Request&, Response&)> onPost = [](Request& request, Response& response) {
        const std::string body = bodyOf(request);
        response.setStatusCode(Quovane::Qvtp::QvtpMessage::STATUS_OK);
        response.setBody(body.data(), body.size());
        response.send();
    };
};

/// A server with its handler and its thread, stopped at its end.
class TestServer {
  public:
    explicit TestServer(int accessMode = 1) : server(name, accessMode) { server.setHandler(&handler); }
    ~TestServer() { stop(); }

    void start() {
        thread_ = std::thread([this] { server.run(); });
        if (!eventually([this] { return server.isRunning(); })) std::abort();
    }
    void stop() {
        server.shutdown();
        if (thread_.joinable()) thread_.join();
    }

    const std::string name = uniquePipeName();
    TestHandler handler;
    Quovane::Qvtp::QvtpServer server;

  private:
    std::thread thread_;
};

}  // namespace qvtp_test
