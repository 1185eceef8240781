// Sends one request to a server such as easy_server.
//
//     easy_client PIPE RESOURCE            the body comes from standard input, of any size
//     easy_client PIPE RESOURCE TEXT       the body is the text
//     easy_client PIPE RESOURCE -n TEXT    the same as a NOTIFY
//
// The reply goes to standard output as it comes. Exit codes: 0 status 2xx, 1 another status or a failure that may be
// tried again, 2 wrong arguments, 3 a failure after which the server may have acted.

#include <qvtp/easy.h>

#include <iostream>

namespace {

int post(qvtp::Client& client, const std::string& resource, const qvtp::Body& body) {
    qvtp::CallOptions options;
    options.headers = {{"Accept", "text/plain"}};
    options.timeout = std::chrono::seconds(10);
    options.onPiece = [](std::string_view piece, const qvtp::Progress&) { std::cout << piece << std::flush; };
    const qvtp::Reply reply = client.post(resource, body, options);
    std::cerr << reply.status() << " " << reply.reason() << std::endl;
    return reply.ok() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc < 3 || argc > 5) {
        std::cerr << "usage: easy_client PIPE RESOURCE [[-n] TEXT]\n";
        return 2;
    }
    qvtp::ClientOptions clientOptions;
    clientOptions.retries = 5;  // of what was not sent: a server that is just restarting, for example
    qvtp::Client client(argv[1], clientOptions);
    if (argc == 3) return post(client, argv[2], std::cin);
    if (argc == 4) return post(client, argv[2], argv[3]);
    client.notify(argv[2], argv[4]);
    return 0;
} catch (const qvtp::Error& e) {
    std::cerr << "failed (" << nameOf(e.kind()) << "): " << e.what() << std::endl;
    return e.safe_to_retry() ? 1 : 3;
}
