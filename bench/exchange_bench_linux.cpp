// What one exchange costs beside a bare socket ping-pong of the same bytes, both against another process, in one run:
// the ratio says more than the times, since machines are noisy.

#include <qvtp/qvtp.h>

#include "examples/BodyOf.h"

#include <benchmark/benchmark.h>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Quovane::Qvtp;

const std::vector<std::int64_t> SIZES = {64, 4 << 10, 64 << 10, 1 << 20};

/// Where the processes meet.
struct Peers {
    std::string pipe = "qvtp-bench-" + std::to_string(::getpid());
    int socket = -1;
} peers;

class EchoHandler : public QvtpHandler {
    void handleNotify(QvtpServerRequest*) override {}
    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        const std::string body = example::bodyOf(*request);
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(body.data(), body.size());
        response->send();
    }
};

bool sendAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool receiveAll(int fd, char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t count = ::recv(fd, data, size, 0);
        if (count <= 0) return false;
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// Echoes bodies of known sizes: each is announced by its size.
void echoBare(int fd) {
    std::vector<char> buffer;
    for (std::size_t size = 0; receiveAll(fd, reinterpret_cast<char*>(&size), sizeof size);) {
        buffer.resize(size);
        if (!receiveAll(fd, buffer.data(), size) || !sendAll(fd, buffer.data(), size)) return;
    }
}

template <typename Work>
pid_t inChild(const Work& work) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    work();
    ::_exit(0);
}

void postEcho(benchmark::State& state) {
    const std::string body(static_cast<std::size_t>(state.range(0)), 'x');
    QvtpClient client;
    for ([[maybe_unused]] auto _ : state) {
        PostRequest request(&client, peers.pipe, "/echo");
        request.setBody(body.data(), body.size());
        const std::unique_ptr<QvtpResponse> response(request.execute());
        if (example::bodyOf(*response).size() != body.size()) state.SkipWithError("wrong answer");
    }
}

void bareEcho(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    std::vector<char> body(size, 'x');
    for ([[maybe_unused]] auto _ : state) {
        if (!sendAll(peers.socket, reinterpret_cast<const char*>(&size), sizeof size) ||
            !sendAll(peers.socket, body.data(), size) || !receiveAll(peers.socket, body.data(), size)) {
            state.SkipWithError("the peer has gone");
        }
    }
}

/// Prints as usual and keeps the medians.
class MedianReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                medians[run.run_name.function_name + "/" + run.run_name.args] = run.GetAdjustedRealTime();
            }
        }
    }
    std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) return 1;
    const pid_t bare = inChild([&] { echoBare(sockets[1]); });
    const pid_t server = inChild([] {
        EchoHandler handler;
        QvtpServer echo(peers.pipe, 1);
        echo.setHandler(&handler);
        echo.run();
    });
    peers.socket = sockets[0];
    for (const std::int64_t size : SIZES) {
        for (auto* entry :
             {benchmark::RegisterBenchmark("PostEcho", postEcho), benchmark::RegisterBenchmark("BareEcho", bareEcho)}) {
            entry->Arg(size)->UseRealTime()->Repetitions(7)->ReportAggregatesOnly(true)->MinTime(0.3);
        }
    }
    while (true) {  // until the server has made its pipe
        try {
            Quovane::Io::QvPipe(peers.pipe, true, true);
            break;
        } catch (const std::exception&) {
            ::usleep(1000);
        }
    }
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const std::int64_t size : SIZES) {
        const std::string argument = "/" + std::to_string(size);
        const double post = reporter.medians["PostEcho" + argument];
        const double yardstick = reporter.medians["BareEcho" + argument];
        if (yardstick > 0) {
            std::printf("%8lld bytes: exchange %10.1f us, bare socket %10.1f us, ratio %.2f\n",
                        static_cast<long long>(size), post / 1000, yardstick / 1000, post / yardstick);
        }
    }
    ::kill(server, SIGKILL);
    ::kill(bare, SIGKILL);
    return 0;
}
