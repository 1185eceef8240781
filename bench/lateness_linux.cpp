// How much later than asked a read ends that has a time-out and a silent peer. Beside it the same wait of the system
// alone, in turns: what that is late is the machine's.
//
//     lateness [ROUNDS]        100 unless given, 10 at least; a tenth of them for the longer ones

#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>
#include <qvtp/io/TimeoutException.h>

#include "examples/common.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Quovane::Io;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array TIMEOUTS{1, 2, 5, 10, 20, 50, 100, 200, 300, 600, 1000};  // milliseconds
constexpr int LONG_TIMEOUT = 600;

/// In milliseconds; below 0 if it ended too soon.
double latenessSince(Clock::time_point begin, int milliseconds) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count() - milliseconds;
}

class SilentPeer {
  public:
    SilentPeer() : server_(name_, true, true) { server_.setAcceptTimeout(10000); }

    /// On a connection of its own: after a time-out it is good for closing only.
    double latenessOfRead(int milliseconds) {
        QvPipe client(name_, true, true);
        QvPipe peer;
        server_.accept(peer);
        char byte = 0;
        const auto begin = Clock::now();
        try {
            client.readPipe(&byte, 0, 1, milliseconds);
        } catch (TimeoutException&) {
            return latenessSince(begin, milliseconds);
        }
        throw std::runtime_error("the read ended without a time-out");
    }

  private:
    const std::string name_ = "lateness-" + std::to_string(::getpid());
    ServerQvPipe server_;
};

double latenessOfSystem(int milliseconds) {
    const auto begin = Clock::now();
    if (::poll(nullptr, 0, milliseconds) != 0) throw std::runtime_error("the wait was interrupted");
    return latenessSince(begin, milliseconds);
}

void print(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    std::printf("  ");
    for (const double share : {0.0, 0.5, 0.99, 1.0}) {
        const auto rank = static_cast<std::size_t>(std::ceil(static_cast<double>(values.size()) * share));
        std::printf(" %7.3f", values[rank > 0 ? rank - 1 : 0]);
    }
}

void measure(SilentPeer& peer, int milliseconds, int rounds) {
    std::vector<double> reads, bare;
    for (int i = 0; i < rounds; ++i) {
        reads.push_back(peer.latenessOfRead(milliseconds));
        bare.push_back(latenessOfSystem(milliseconds));
    }
    std::printf("%7d ms", milliseconds);
    print(reads);
    print(bare);
    std::printf("\n");
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    return example::run([&] {
        const int rounds = std::max(10, argc > 1 ? std::atoi(argv[1]) : 100);
        SilentPeer peer;
        peer.latenessOfRead(1);  // the first exception of a process takes longer
        std::puts("Milliseconds late    a read of a pipe                   poll() of nothing");
        std::puts("  time-out    least  median     99%    most    least  median     99%    most");
        for (const int timeout : TIMEOUTS) measure(peer, timeout, timeout < LONG_TIMEOUT ? rounds : rounds / 10);
    });
}
