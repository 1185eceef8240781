#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace qvtp_test {

/// How long a test looks whether a call in the background is waiting: long enough for a busy machine to have come to
/// its wait.
constexpr std::chrono::milliseconds PENDING{250};

/// Does the work on a thread of its own, which has begun when this returns: a busy machine may need longer than that.
template <typename Work>
auto inBackground(Work work) {
    const auto begun = std::make_shared<std::promise<void>>();
    auto outcome = std::async(std::launch::async, [begun, work = std::move(work)]() mutable {
        begun->set_value();
        return work();
    });
    begun->get_future().wait();
    return outcome;
}

/// Ends the process with a message if a test takes longer than this, so that a hang names its test.
class Watchdog {
  public:
    explicit Watchdog(std::chrono::seconds limit);
    ~Watchdog();

  private:
    void watch(std::chrono::seconds limit);

    std::mutex mutex_;
    std::condition_variable condition_;
    bool done_ = false;
    std::thread thread_;
};

/// Waits until the condition holds, looking again and again; false if it does not within the deadline.
bool eventually(const std::function<bool()>& condition, std::chrono::seconds deadline = std::chrono::seconds(20));

/// Lets a short time pass by asking the clock: a sleep below a millisecond is none on some systems, or a long one. For
/// tests that meet another thread at ever other moments.
void spinFor(std::chrono::microseconds time);

/// How long an action takes.
std::chrono::milliseconds elapsed(const std::function<void()>& action);

}  // namespace qvtp_test
