#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace qvtp_test {

/// How long a test looks whether a call in the background is waiting: long enough for a busy machine to have begun it.
constexpr std::chrono::milliseconds PENDING{250};

/// Ends the process with a message if a test takes longer than this, so that a hang names its test.
class Watchdog {
  public:
    explicit Watchdog(std::chrono::seconds limit = std::chrono::seconds(60));
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
