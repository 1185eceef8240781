// Serves one pipe name until its standard input ends.
//
//     echo_server PIPE [SPOOL-FILE [LOG [COMMUNICATION-LOG]]]
//
// POST /echo     answers with the body it was sent
// POST /stream   stores the body in the spool file, of any length, and streams it back from there
// NOTIFY         prints what it was sent
// anything else  404, by sendError

#include "BodyOf.h"
#include "common.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Quovane::Qvtp;

namespace {

class EchoHandler : public QvtpHandler {
  public:
    explicit EchoHandler(std::string spoolFile) : spoolFile_(std::move(spoolFile)) {}

    void handleNotify(QvtpServerRequest* request) override {
        print("NOTIFY " + request->getResource() + ": " + example::bodyOf(*request));
    }

    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        const std::string resource = request->getResource();
        if (resource == "/echo") {
            const std::string body = example::bodyOf(*request);
            response->setStatusCode(QvtpMessage::STATUS_OK);
            response->setBody(body.data(), body.size());
            response->send();
        } else if (resource == "/stream") {
            stream(*request, *response);
        } else {
            response->sendError(QvtpMessage::STATUS_NOT_FOUND, "No such resource: " + resource);
        }
    }

  private:
    // The client reads the response only when its whole request is written: what is large must be taken in first.
    void stream(QvtpServerRequest& request, QvtpServerResponse& response) {
        const std::lock_guard<std::mutex> guard(spoolMutex_);
        std::ofstream spool(spoolFile_, std::ios::binary);
        copy(*request.getBodyStream(), spool);
        spool.close();
        response.setStatusCode(QvtpMessage::STATUS_OK);
        std::ifstream spooled(spoolFile_, std::ios::binary);
        copy(spooled, *response.getBodyStream());
        response.send();
    }

    // Not "out << in.rdbuf()": that would drop the exception of a body that is cut off, and go on as if it were whole.
    static void copy(std::istream& in, std::ostream& out) {
        std::vector<char> piece(65536);
        while (in.good() && out.good()) {
            in.read(piece.data(), static_cast<std::streamsize>(piece.size()));
            out.write(piece.data(), in.gcount());
        }
    }

    // Handlers run on several threads at once.
    void print(const std::string& line) {
        const std::lock_guard<std::mutex> guard(printMutex_);
        std::cout << line << std::endl;
    }

    std::string spoolFile_;
    std::mutex spoolMutex_;
    std::mutex printMutex_;
};

}  // namespace

int main(int argc, char** argv) {
    const auto argument = [&](int i) { return argc > i ? argv[i] : nullptr; };
    if (argc < 2) {
        std::cerr << "usage: echo_server PIPE [SPOOL-FILE [LOG [COMMUNICATION-LOG]]]\n";
        return 2;
    }
    return example::run([&] {
        example::logTo(argument(3), argument(4));
        EchoHandler handler(argc > 2 ? argv[2] : "echo_server.spool");
        QvtpServer server(argv[1], 1);
        if (std::getenv("QvtpConfigurationFile") != nullptr) {
            QvtpConfig::getInstance().setQvtpServerOptions(server, "demo", "server");
        }
        std::cout << "server: up to " << server.getIntegerOption(QvtpServer::MAX_REQUEST_PROCESSORS)
                  << " connections at once, buffers of " << server.getIntegerOption(QvtpServer::BUFFER_SIZE) << " bytes"
                  << std::endl;
        server.setHandler(&handler);
        server.setUnhandledExceptionPolicy(QvtpServer::ANSWER);
        // A shutdown() before run() accepts has no effect: wait until it does, or has ended because it cannot.
        std::atomic<bool> ended{false};
        std::thread thread([&] {
            server.run();
            ended = true;
        });
        while (!server.isRunning() && !ended) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!ended) std::cin.ignore(std::numeric_limits<std::streamsize>::max());
        server.shutdown();
        thread.join();
        std::cout << "server: stopped" << std::endl;
    });
}
