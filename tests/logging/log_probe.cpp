// Has something to log before main() and in it. A program of its own, since a process reads its environment once.
//
//     log_probe           one POST to a server of its own
//     log_probe FILE      the same after the program has set up its own log, into that file

#include <qvtp/qvtp.h>

#include "examples/BodyOf.h"
#include "support/PipeName.h"

#include <cstdio>
#include <thread>

namespace {

using namespace Quovane::Qvtp;

/// Its constructor runs before main().
struct Early {
    Early() {
        QvtpClient client;
        client.getIntegerOption(static_cast<QvtpClient::ClientOptions>(99));  // an ERROR line
    }
} early;

struct Echo : QvtpHandler {
    void handleNotify(QvtpServerRequest*) override {}
    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        const std::string body = example::bodyOf(*request);
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(body.data(), body.size());
        response->send();
    }
};

}  // namespace

int main(int argc, char** argv) {
    std::FILE* const own = argc > 1 ? std::fopen(argv[1], "wb") : nullptr;
    if (own != nullptr) QvtpMessage::setLoggingLevel(own, LoggingLevel::INFO, nullptr, CommunicationLevel::OFF);
    const std::string pipe = qvtp_test::uniquePipeName();
    Echo echo;
    QvtpServer server(pipe, 1);
    server.setHandler(&echo);
    std::thread thread([&] { server.run(); });
    while (!server.isRunning()) std::this_thread::yield();
    QvtpClient client;
    PostRequest request(&client, pipe, "/resource");
    request.setBody("body", 4);
    const std::unique_ptr<QvtpResponse> response(request.execute());
    const bool isRight = example::bodyOf(*response) == "body";
    server.shutdown();
    thread.join();
    return isRight ? 0 : 1;
}
