#include <qvtp/platform/StopSignal.h>

#include "common/Early.h"
#include "platform/Descriptor_linux.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <system_error>
#include <type_traits>

namespace Quovane::Io {

using namespace Quovane::Internal::Qvtp;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int SIGNALS[] = {SIGINT, SIGTERM};
constexpr std::size_t SIGNAL_COUNT = std::size(SIGNALS);

Descriptor newEvent() {
    Descriptor event = Descriptor::event();
    if (!event.isOpen()) throw std::system_error(errno, std::generic_category(), "no event for signals");
    return event;
}

// What the handler uses; it may take no lock.
std::atomic<int> received{0};
std::atomic<int> signalEvent{-1};
std::atomic<pid_t> owner{0};
struct sigaction formerActions[SIGNAL_COUNT];

void restore();

void receive(int number) {
    const int error = errno;
    if (owner == ::getpid()) {
        received = number;
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(signalEvent, &one, sizeof one);
    } else {  // a forked child: the event is the parent's
        restore();
        ::raise(number);
    }
    errno = error;
}

bool isOurs(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == receive;
}

/// Where nobody else has set a handler meanwhile.
void restore() {
    for (std::size_t i = 0; i < SIGNAL_COUNT; ++i) {
        struct sigaction current {};
        if (::sigaction(SIGNALS[i], nullptr, &current) == 0 && isOurs(current)) {
            ::sigaction(SIGNALS[i], &formerActions[i], nullptr);
        }
    }
}

/// A signal that is ignored stays so: a shell ignores SIGINT for what it starts in the background. Where a forked child
/// has inherited the handler, what it took the place of is known already.
void install() {
    for (std::size_t i = 0; i < SIGNAL_COUNT; ++i) {
        struct sigaction current {};
        ::sigaction(SIGNALS[i], nullptr, &current);
        if (isOurs(current)) continue;
        formerActions[i] = current;
        if ((current.sa_flags & SA_SIGINFO) == 0 && current.sa_handler == SIG_IGN) continue;
        struct sigaction action {};
        action.sa_handler = receive;
        action.sa_flags = SA_RESTART;
        ::sigemptyset(&action.sa_mask);
        ::sigaction(SIGNALS[i], &action, nullptr);
    }
}

/// The use of the process's signals by all objects.
class Use {
  public:
    void begin() {
        const std::lock_guard<std::mutex> guard(mutex_);
        const bool isForked = owner != ::getpid();  // what there is belongs to the parent, the event too
        if (isForked) users_ = 0;
        if (users_ == 0) {
            // Kept from use to use: a handler may just be writing to it.
            if (event_ == nullptr) event_ = new Descriptor;
            if (!event_->isOpen() || isForked) *event_ = newEvent();
            event_->unsignal();
            received = 0;
            signalEvent = event_->get();
            owner = ::getpid();
            install();
        }
        ++users_;
    }

    /// `process`: the one that has begun the use.
    void end(pid_t process) {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (process != ::getpid() || --users_ > 0) return;
        restore();
    }

    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

  private:
    std::mutex mutex_;  // guards the rest
    int users_ = 0;
    Descriptor* event_ = nullptr;
};

/// Never freed: objects may be static. Made before the program begins, since a forked child would wait for ever for
/// another thread of its parent that was about to make it.
Use use;
static_assert(std::is_trivially_destructible_v<Use>);

/// A forked child has one thread. Were another one within the lock, it would stay locked there.
struct ForkHandlers {
    ForkHandlers() {
        ::pthread_atfork([] { use.lock(); }, [] { use.unlock(); }, [] { use.unlock(); });
    }
};
QVTP_EARLY const ForkHandlers forkHandlers;

int millisecondsUntil(Clock::time_point end) {
    return static_cast<int>(
        std::max<Clock::rep>(0, std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count()));
}

}  // namespace

struct StopSignal::State {
    State() { use.begin(); }
    ~State() { use.end(process); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    const pid_t process = ::getpid();
    Descriptor woken = newEvent();  // before the constructor's body: nothing has begun if there is none
};

StopSignal::StopSignal() : state_(std::make_unique<State>()) {}

StopSignal::~StopSignal() = default;

int StopSignal::wait(int milliseconds) {
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    pollfd events[] = {{state_->woken.get(), POLLIN, 0}, {signalEvent, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(events, std::size(events), milliseconds > 0 ? millisecondsUntil(end) : -1);
        if (ready > 0) return events[1].revents != 0 ? received.load() : 0;
        if (ready == 0 || errno != EINTR) return 0;
    }
}

void StopSignal::wake() {
    state_->woken.signal();
}

}  // namespace Quovane::Io
