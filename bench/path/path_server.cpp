// Answers each POST with its own body, until standard input ends.
//
//     path_server PIPE

#include "examples/common.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <iostream>
#include <limits>
#include <memory>
#include <thread>

using namespace Quovane::Qvtp;

namespace {

class EchoHandler : public QvtpHandler {
    void handleNotify(QvtpServerRequest*) override {}
    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        char* data = nullptr;
        std::size_t length = 0;
        request->getBody(&data, length);
        const std::unique_ptr<char[]> owner(data);
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(data, length);
        response->send();
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    return example::run([&] {
        EchoHandler handler;
        QvtpServer server(argv[1], 1);
        server.setHandler(&handler);
        std::atomic<bool> ended{false};
        std::thread thread([&] {
            server.run();
            ended = true;
        });
        while (!server.isRunning() && !ended) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!ended) {
            std::cout << "ready" << std::endl;
            std::cin.ignore(std::numeric_limits<std::streamsize>::max());
        }
        server.shutdown();
        thread.join();
    });
}
