// Posts a body of SIZE bytes ROUNDS times over one connection, and checks each answer.
//
//     path_client PIPE ROUNDS SIZE

#include "examples/common.h"

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

using namespace Quovane::Qvtp;

namespace {

void exchange(QvtpClient& client, const std::string& pipe, const std::string& body) {
    PostRequest request(&client, pipe, "/echo");
    request.setBody(body.data(), body.size());
    const std::unique_ptr<QvtpResponse> response(request.execute());
    char* data = nullptr;
    std::size_t length = 0;
    response->getBody(&data, length);
    const std::unique_ptr<char[]> owner(data);
    if (length != body.size()) throw std::runtime_error("not what was sent");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    return example::run([&] {
        const std::string pipe = argv[1];
        const std::string body(static_cast<std::size_t>(std::atoi(argv[3])), 'x');
        QvtpClient client;
        for (int rounds = std::atoi(argv[2]); rounds > 0; --rounds) exchange(client, pipe, body);
    });
}
