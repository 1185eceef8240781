// A process in which nothing has been received yet. It does what the letters of its argument say and prints a line:
//
//     w    asks whether the next wait should try: 1 or 0
//     +    records a try that paid
//     -    records one that did not
//     b    begins a wait
//     e    ends the one that has lasted longest
//     n    ends the newest
//     s    from now on one processor is allowed

#include "platform/SpinWait_linux.h"

#include <sched.h>

#include <cstdio>
#include <deque>

namespace {

namespace SpinWait = Quovane::Internal::Qvtp::SpinWait;

/// The processor on which it runs now.
bool allowOneProcessor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
    return ::sched_setaffinity(0, sizeof one, &one) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    std::deque<SpinWait::Wait> waits;
    for (const char* step = argv[1]; *step != '\0'; ++step) {
        if (*step == 'w') std::putchar(SpinWait::isWorthwhile() ? '1' : '0');
        if (*step == '+' || *step == '-') SpinWait::record(*step == '+');
        if (*step == 'b') waits.emplace_back();
        if (*step == 'e') waits.pop_front();
        if (*step == 'n') waits.pop_back();
        if (*step == 's' && !allowOneProcessor()) return 3;
    }
    std::putchar('\n');
    return 0;
}
