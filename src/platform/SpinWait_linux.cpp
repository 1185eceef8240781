#include "platform/SpinWait_linux.h"

#include "common/System.h"

#include <sched.h>

#include <algorithm>
#include <atomic>

namespace Quovane::Internal::Qvtp::SpinWait {

namespace {

// Tries that did not pay cost more than others gain: one of them takes back what four have earned.
constexpr int MOST = 32;
constexpr int GAIN = 1;
constexpr int LOSS = 4;
// While tries do not pay, one wait of so many tries all the same. If that pays, the next ones try too.
constexpr unsigned PROBE_EVERY = 64;
constexpr int PROBE_GAIN = 8;

constexpr int UNKNOWN = -1;  // the first wait finds out

/// Shared by all threads. Two that count at once may lose a point, which does not matter.
std::atomic<int> score{UNKNOWN};
std::atomic<unsigned> waits{0};

/// Read once, without a lock: a child that is forked meanwhile would find it taken for ever.
bool isSwitchedOff() {
    static std::atomic<int> isOff{UNKNOWN};
    int known = isOff.load(std::memory_order_relaxed);
    if (known == UNKNOWN) {
        known = System::environmentVariable("QVTP_SPIN").value_or("") == "0" ? 1 : 0;
        isOff.store(known, std::memory_order_relaxed);
    }
    return known != 0;
}

/// The calling thread may run on two processors at least.
bool hasSeveralProcessors() {
    cpu_set_t processors;
    // A set that is too small for the machine means that it has many.
    return ::sched_getaffinity(0, sizeof processors, &processors) != 0 || CPU_COUNT(&processors) > 1;
}

bool isPossible() {
    return !isSwitchedOff() && hasSeveralProcessors();
}

bool isTimeToLook() {
    return waits.fetch_add(1, std::memory_order_relaxed) % PROBE_EVERY == PROBE_EVERY - 1;
}

}  // namespace

bool isWorthwhile() {
    const int now = score.load(std::memory_order_relaxed);
    if (now > 0 && !isTimeToLook()) return true;
    if (now == UNKNOWN) {
        const bool possible = isPossible();
        score.store(possible ? MOST / 2 : 0, std::memory_order_relaxed);
        return possible;
    }
    if (now > 0) {
        const bool possible = isPossible();
        if (!possible) score.store(0, std::memory_order_relaxed);
        return possible;
    }
    return isTimeToLook() && isPossible();
}

void record(bool paid) {
    const int before = score.load(std::memory_order_relaxed);
    const int change = paid ? (before > 0 ? GAIN : PROBE_GAIN) : -LOSS;
    score.store(std::clamp(before + change, 0, MOST), std::memory_order_relaxed);
}

}  // namespace Quovane::Internal::Qvtp::SpinWait
