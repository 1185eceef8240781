// Server and client in one program, on public headers alone. Prints "package ok" and nothing else.
//
//     consumer PIPE IDLE_TIMEOUT      the second is what the configuration should make of that option of a client

#include <qvtp/qvtp.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

using namespace Quovane::Qvtp;

namespace {

// Built before main(), when the library's constants have to be there already.
const std::string METHOD = QvtpMessage::METHOD_POST;

class Greeter : public QvtpHandler {
    void handleNotify(QvtpServerRequest*) override {}
    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        const std::string greeting = "Hello, " + request->getResource();
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(greeting.data(), greeting.size());
        response->send();
    }
};

std::string greet(const std::string& pipe) {
    QvtpClient client;
    PostRequest request(&client, pipe, "package");
    request.setBody("", 0);
    const std::unique_ptr<QvtpResponse> response(request.execute());
    char* data = nullptr;
    size_t length = 0;
    response->getBody(&data, length);
    const std::unique_ptr<char[]> owner(data);
    return std::string(data, length);
}

/// The option after the configuration has been applied.
int configuredIdleTimeout() {
    QvtpClient client;
    QvtpConfig::getInstance().setQvtpClientOptions(client, "package", "consumer");
    return client.getIntegerOption(QvtpClient::IDLE_TIMEOUT);
}

bool failsWithoutServer(const std::string& pipe) {
    try {
        greet(pipe);
    } catch (Quovane::Io::QvPipeException& e) {
        return e.getMessage() == "Could not connect to pipe.";
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    if (METHOD != "POST") return 6;
    const std::string pipe = argv[1];
    if (!failsWithoutServer(pipe)) return 3;
    Greeter greeter;
    QvtpServer server(pipe, 1);
    server.setHandler(&greeter);
    std::thread thread([&] { server.run(); });
    while (!server.isRunning()) std::this_thread::yield();
    const std::string greeting = greet(pipe);
    server.shutdown();
    thread.join();
    if (greeting != "Hello, package") return 4;
    if (std::to_string(configuredIdleTimeout()) != argv[2]) return 5;
    std::puts("package ok");
    return 0;
}
