// The other process of the tests of two. It prints "ready" and then does as it is told:
//
//     easy_peer serve PIPE         serves until it is killed or gets NOTIFY /stop
//     easy_peer post PIPE COUNT    posts and checks the echo so many times

#include <qvtp/easy.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

namespace {

using qvtp::Reply;
using qvtp::Request;

void ready() {
    std::puts("ready");
    std::fflush(stdout);
}

[[noreturn]] void sleepForEver() {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

int serve(const std::string& pipe) {
    qvtp::Server server(pipe);
    std::promise<void> stop;
    server.onPost("/echo", [](const Request& request) { return Reply(request.body()); });
    server.onPost("/never", [](const Request&) -> Reply { sleepForEver(); });
    server.onPost("/count", [&](const Request&) { return Reply(std::to_string(server.counters().inHandlers - 1)); });
    server.onPost("/peer", [](const Request& request) { return Reply(std::to_string(request.peer().processId)); });
    server.onPost("/half", [](const Request&) {
        return Reply::stream([](std::ostream& out) {
            out << "half" << std::flush;
            sleepForEver();
        });
    });
    server.onNotify("/stop", [&](const Request&) { stop.set_value(); });
    server.start();
    ready();
    stop.get_future().wait();
    return server.stop(std::chrono::seconds(10)) ? 0 : 1;
}

int post(const std::string& pipe, int count) {
    qvtp::Client client(pipe);
    ready();
    for (int i = 0; i < count; ++i) {
        const std::string body(static_cast<std::size_t>(i * 37 % 10000), static_cast<char>('a' + i % 26));
        if (client.post("/echo", body).body() != body) return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    return std::string(argv[1]) == "serve" ? serve(argv[2]) : post(argv[2], std::atoi(argv[3]));
}
