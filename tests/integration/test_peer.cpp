// The other process of two-process tests. It prints "ready" and then does as it is told:
//
//     test_peer serve PIPE         serves until it is killed or its name "/stop" is notified; POST is echoed
//     test_peer post PIPE COUNT    posts and checks the echo so many times
//     test_peer hang PIPE          connects, sends half a request, and waits to be killed

#include <qvtp/qvtp.h>

#include "support/TestServer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>

namespace {

using namespace Quovane::Qvtp;
using namespace qvtp_test;

void ready() {
    std::puts("ready");
    std::fflush(stdout);
}

int serve(const std::string& pipe) {
    TestHandler handler;
    std::promise<void> stop;
    handler.onNotify = [&](QvtpServerRequest& request) {
        if (request.getResource() == "/stop") stop.set_value();
    };
    QvtpServer server(pipe, 1);
    server.setHandler(&handler);
    std::thread thread([&] { server.run(); });
    while (!server.isRunning()) std::this_thread::yield();
    ready();
    stop.get_future().wait();
    server.shutdown();
    thread.join();
    return 0;
}

int post(const std::string& pipe, int count) {
    QvtpClient client;
    ready();
    for (int i = 0; i < count; ++i) {
        const std::string body(static_cast<std::size_t>(i * 37 % 10000), static_cast<char>('a' + i % 26));
        PostRequest request(&client, pipe, "/echo");
        request.setBody(body.data(), body.size());
        const std::unique_ptr<QvtpResponse> response(request.execute());
        if (bodyOf(*response) != body) return 1;
    }
    return 0;
}

int hang(const std::string& pipe) {
    Quovane::Io::QvPipe connection(pipe, true, true);
    const char half[] = "POST /echo QVTP/1.0\r\nContent-Length: 100\r\n\r\nhalf";
    connection.writePipe(half, 0, static_cast<int>(std::strlen(half)));
    ready();
    std::this_thread::sleep_for(std::chrono::hours(1));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::string command = argv[1];
    if (command == "serve") return serve(argv[2]);
    if (command == "post") return post(argv[2], std::atoi(argv[3]));
    return hang(argv[2]);
}
