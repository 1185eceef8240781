// A process in which nothing has been received yet. It does what the letters of its argument say and prints a line:
//
//     w    asks whether the next wait should try: 1 or 0
//     +    records a try that paid
//     -    records one that did not
//     b    begins a wait
//     e    ends the one that has lasted longest
//     n    ends the newest
//     s    from now on one processor is allowed
//     1-9  from now on the system reports so many

#include "platform/SpinWait_linux.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <deque>

namespace {

namespace SpinWait = Quovane::Internal::Qvtp::SpinWait;

int reported = 0;  // 0: what there are

/// The processor on which it runs now.
bool allowOneProcessor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
    return ::sched_setaffinity(0, sizeof one, &one) == 0;
}

}  // namespace

/// Stands before the one of the C library.
extern "C" int sched_getaffinity(pid_t process, std::size_t size, cpu_set_t* allowed) noexcept {
    CPU_ZERO(allowed);
    if (reported == 0) return ::syscall(SYS_sched_getaffinity, process, size, allowed) < 0 ? -1 : 0;
    for (int i = 0; i < reported; ++i) CPU_SET(static_cast<unsigned>(i), allowed);
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    std::deque<SpinWait::Wait> waits;
    for (const char* step = argv[1]; *step != '\0'; ++step) {
        if (*step == 'w') std::putchar(SpinWait::isWorthwhile() ? '1' : '0');
        if (*step == '+' || *step == '-') SpinWait::record(*step == '+');
        if (*step == 'b') waits.emplace_back();
        if (*step == 'e') waits.pop_front();
        if (*step == 'n') waits.pop_back();
        if (*step >= '1' && *step <= '9') reported = *step - '0';
        if (*step == 's' && !allowOneProcessor()) return 3;
    }
    std::putchar('\n');
    return 0;
}
