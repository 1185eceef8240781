// Posts a text and prints the answer; with more threads and rounds, many at once.
//
//     echo_client PIPE RESOURCE TEXT [THREADS ROUNDS [LOG [COMMUNICATION-LOG]]]

#include "BodyOf.h"
#include "common.h"

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Quovane::Qvtp;

namespace {

struct Answer {
    int status;
    std::string reason;
    std::string body;
};

Answer post(QvtpClient& client, const std::string& pipe, const std::string& resource, const std::string& text) {
    PostRequest request(&client, pipe, resource);
    request.addHeader("Content-Type", "text/plain");
    request.setBody(text.data(), text.size());
    const std::unique_ptr<QvtpResponse> response(request.execute());
    return {response->getStatusCode(), response->getReasonPhrase(), example::bodyOf(*response)};
}

/// One client serves all threads; each request takes a pipe of its own from its pool.
void postFromThreads(QvtpClient& client, const std::string& pipe, const std::string& resource, const std::string& text,
                     int threads, int rounds) {
    std::atomic<int> answered{0};
    std::vector<std::thread> workers;
    workers.reserve(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i) {
        workers.emplace_back([&, i] {
            example::run([&] {
                for (int round = 0; round < rounds; ++round) {
                    const std::string own = text + " " + std::to_string(i) + "." + std::to_string(round);
                    if (post(client, pipe, resource, own).body == own) ++answered;
                }
            });
        });
    }
    for (std::thread& worker : workers) worker.join();
    std::cout << answered << " of " << threads * rounds << " requests of " << threads << " threads answered"
              << std::endl;
    if (answered != threads * rounds) throw std::runtime_error("not all requests were answered");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::cerr << "usage: echo_client PIPE RESOURCE TEXT [THREADS ROUNDS [LOG [COMMUNICATION-LOG]]]\n";
        return 2;
    }
    return example::run([&] {
        const auto argument = [&](int i) { return argc > i ? argv[i] : nullptr; };
        example::logTo(argument(6), argument(7));
        const int threads = argc > 4 ? std::atoi(argv[4]) : 1;
        const int rounds = argc > 5 ? std::atoi(argv[5]) : 1;
        QvtpClient client;
        if (std::getenv("QvtpConfigurationFile") != nullptr) {
            QvtpConfig::getInstance().setQvtpClientOptions(client, "demo", "client");
            std::cout << "client: pieces of " << client.getIntegerOption(QvtpClient::BUFFER_SIZE) << " bytes"
                      << std::endl;
        }
        if (threads * rounds > 1) {
            postFromThreads(client, argv[1], argv[2], argv[3], threads, rounds);
            return;
        }
        const Answer answer = post(client, argv[1], argv[2], argv[3]);
        std::cout << answer.status << " " << answer.reason << ": " << answer.body << std::endl;
    });
}
