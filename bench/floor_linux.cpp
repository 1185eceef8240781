// What a POST and its answer over a bare socket take when the same calls of the system and the same copies are made as
// over this library, and none of its work is done: how far it could go. Both processes share one core. Each line adds
// one thing, the last one all of them, as a ratio to the bare socket without any in the same round.
//
//     floor SIZE [ROUNDS]

#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <vector>

namespace {

constexpr std::size_t HEAD = 63;                   // bytes of a usual head
constexpr std::size_t AREA = 4096;                 // what a stream of the library reads at once
constexpr std::size_t AHEAD = 1024;                // what one call may read after that
constexpr std::size_t MOST_EXCHANGES = 3000;       // in a turn
constexpr std::size_t BYTES_OF_A_TURN = 64 << 20;  // of bodies, if these are fewer exchanges

struct Form {
    const char* name;
    bool hasHead;     // before each body
    bool copies;      // what is received is the application's, and what it sends is copied, since it may change it
    bool hasArea;     // the beginning is read into an area, since nobody knows yet how long the body is
    bool hasTimeout;  // the server's waits have one
    bool tries;       // each side tries before it waits
};

constexpr std::array<Form, 7> FORMS{{
    {"bare socket", false, false, false, false, false},
    {"a head", true, false, false, false, false},
    {"a copy of each body", false, true, false, false, false},
    {"an area for the beginning", false, false, true, false, false},
    {"a time-out of the server's wait", false, false, false, true, false},
    {"a try before each wait", false, false, false, false, true},
    {"all of them", true, true, true, true, true},
}};

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void allowOneCore() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
    if (::sched_setaffinity(0, sizeof one, &one) != 0) fail("sched_setaffinity");
}

/// Of this process, in microseconds.
double processorTime() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto of = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
    };
    return of(usage.ru_utime) + of(usage.ru_stime);
}

/// One end of the connection.
class End {
  public:
    End(int fd, const Form& form, std::size_t size, bool isServer)
        : fd_(fd),
          form_(form),
          bodySize_(size),
          block_((form.hasHead ? HEAD : 0) + size),
          received_(form.copies ? block_.size() : 0),
          ownBody_(form.copies && !isServer ? size : 0),
          tries_(form.tries) {
        if (!isServer || !form.hasTimeout) return;
        const timeval limit{9, 0};
        if (::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) fail("setsockopt");
    }

    void send() {
        if (form_.copies) {
            const std::vector<char>& body = ownBody_.empty() ? received_ : ownBody_;  // a server sends what it got
            const auto size = static_cast<std::ptrdiff_t>(bodySize_);
            std::copy(body.end() - size, body.end(), block_.end() - size);
        }
        const ssize_t sent = ::send(fd_, block_.data(), block_.size(), MSG_NOSIGNAL);
        if (sent != static_cast<ssize_t>(block_.size())) fail("send");
    }

    /// False at the end.
    bool receive() {
        std::vector<char>& block = form_.copies ? received_ : block_;
        for (std::size_t filled = 0; filled < block.size();) {
            char* const target = block.data() + filled;
            const std::size_t wanted = block.size() - filled;
            const bool isBeginning = form_.hasArea && filled == 0;
            const ssize_t count = isBeginning ? receiveArea(target, wanted) : receiveSome(target, wanted);
            if (count <= 0) return false;
            filled += static_cast<std::size_t>(count);
        }
        return true;
    }

  private:
    ssize_t receiveSome(char* target, std::size_t size) const {
        iovec block{target, size};
        return receiveBlocks(&block, 1);
    }

    /// By one call for two blocks where that takes the whole message.
    ssize_t receiveArea(char* target, std::size_t wanted) {
        iovec blocks[] = {{area_.data(), AREA}, {area_.data() + AREA, AHEAD}};
        const ssize_t count = receiveBlocks(blocks, wanted > AREA && wanted <= AREA + AHEAD ? 2 : 1);
        if (count > 0) std::copy_n(area_.begin(), count, target);
        return count;
    }

    ssize_t receiveBlocks(iovec* blocks, std::size_t count) const {
        const ssize_t there = tries_ ? receiveOnce(blocks, count, MSG_DONTWAIT) : -1;
        return there < 0 ? receiveOnce(blocks, count, 0) : there;
    }

    ssize_t receiveOnce(iovec* blocks, std::size_t count, int flags) const {
        if (count == 1) return ::recv(fd_, blocks[0].iov_base, blocks[0].iov_len, flags);
        msghdr message{};
        message.msg_iov = blocks;
        message.msg_iovlen = count;
        return ::recvmsg(fd_, &message, flags);
    }

    const int fd_;
    const Form& form_;
    const std::size_t bodySize_;
    std::vector<char> block_;     // what is sent, and what is received
    std::vector<char> received_;  // the same, where that is the application's
    std::vector<char> ownBody_;   // of a client's application
    std::array<char, AREA + AHEAD> area_{};
    const bool tries_;
};

double serve(int fd, const Form& form, std::size_t size) {
    End end(fd, form, size, true);
    const double before = processorTime();
    while (end.receive()) end.send();
    return processorTime() - before;
}

/// The processor time of one exchange in both processes.
double turn(const Form& form, std::size_t size) {
    const std::size_t exchanges = std::clamp<std::size_t>(BYTES_OF_A_TURN / size, 1, MOST_EXCHANGES);
    int ends[2];
    int report[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || ::pipe(report) != 0) fail("socketpair");
    const pid_t server = ::fork();
    if (server < 0) fail("fork");
    if (server == 0) {
        ::close(ends[0]);
        const double time = serve(ends[1], form, size);
        ::_exit(::write(report[1], &time, sizeof time) == sizeof time ? 0 : 1);
    }
    ::close(ends[1]);
    double own = 0;
    {
        End end(ends[0], form, size, false);
        const double before = processorTime();
        for (std::size_t i = 0; i < exchanges; ++i) {
            end.send();
            if (!end.receive()) fail("recv");
        }
        own = processorTime() - before;
    }
    ::close(ends[0]);
    double others = 0;
    if (::read(report[0], &others, sizeof others) != sizeof others) fail("read");
    ::waitpid(server, nullptr, 0);
    ::close(report[0]);
    ::close(report[1]);
    return (own + others) / static_cast<double>(exchanges);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) try {
    const std::size_t size = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 0;
    if (size == 0) return 2;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 40;
    allowOneCore();
    std::array<std::vector<double>, FORMS.size()> ratios;
    std::array<std::vector<double>, FORMS.size()> times;
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < FORMS.size(); ++i) {
            times[i].push_back(turn(FORMS[i], size));
            ratios[i].push_back(times[i].back() / times[0].back());
        }
    }
    for (std::size_t i = 0; i < FORMS.size(); ++i) {
        std::printf("%7zu bytes  %-32s %5.3f %7.2f us\n", size, FORMS[i].name, median(ratios[i]), median(times[i]));
    }
    return 0;
} catch (const std::system_error& e) {
    std::fprintf(stderr, "floor: %s\n", e.what());
    return 1;
}
