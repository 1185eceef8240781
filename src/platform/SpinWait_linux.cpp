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

// How the average of the crowd is kept: in parts of a thread. A wait changes it by so much of the difference.
constexpr int ONE_THREAD = 16;
constexpr int SHARE = 8;

constexpr int UNKNOWN = -1;  // the first wait finds out

/// Shared by all threads. Two that count at once may lose a point, which does not matter.
std::atomic<int> score{UNKNOWN};
std::atomic<unsigned> waits{0};
std::atomic<int> processors{CPU_SETSIZE};  // as of the last look
/// Of all threads. Wraps around.
std::atomic<unsigned> endedWaits{0};
/// How many other threads end a wait during one, on average, times ONE_THREAD.
std::atomic<int> crowd{0};

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

/// On how many the calling thread may run. It is noted for all.
int lookAtProcessors() {
    cpu_set_t allowed;
    // A set that is too small for the machine means that it has many.
    const int count = ::sched_getaffinity(0, sizeof allowed, &allowed) == 0 ? CPU_COUNT(&allowed) : CPU_SETSIZE;
    processors.store(count, std::memory_order_relaxed);
    return count;
}

/// Where only one processor is allowed, a thread that tries keeps its peer from answering.
bool isPossible() {
    return lookAtProcessors() > 1 && !isSwitchedOff();
}

/// Each thread that exchanges messages has a peer, which needs a processor too.
bool isCrowded() {
    const int active = 1 + (crowd.load(std::memory_order_relaxed) + ONE_THREAD / 2) / ONE_THREAD;
    return active > 1 && 2 * active > processors.load(std::memory_order_relaxed);
}

bool isTimeToLook() {
    return waits.fetch_add(1, std::memory_order_relaxed) % PROBE_EVERY == PROBE_EVERY - 1;
}

}  // namespace

Wait::Wait() : begun_(endedWaits.load(std::memory_order_relaxed)) {}

Wait::~Wait() {
    const unsigned others = endedWaits.fetch_add(1, std::memory_order_relaxed) - begun_;
    // It may have lasted for hours: more threads than processors are a crowd, however many more.
    const auto most = static_cast<unsigned>(processors.load(std::memory_order_relaxed));
    const int before = crowd.load(std::memory_order_relaxed);
    const int now = static_cast<int>(std::min(others, most)) * ONE_THREAD;
    const int change = (now - before) / SHARE;
    if (change != 0) crowd.store(before + change, std::memory_order_relaxed);
}

bool isWorthwhile() {
    if (isCrowded()) {
        // There may be more processors by now. A count of its own would cost threads that take turns more than that.
        if (endedWaits.load(std::memory_order_relaxed) % PROBE_EVERY == 0) lookAtProcessors();
        return false;
    }
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
