#include "support/Holdings.h"

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <cstdint>

namespace qvtp_test {

namespace {

int threadsOf(DWORD process) {
    int count = 0;
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
        if (entry.th32OwnerProcessID == process) ++count;
    }
    ::CloseHandle(snapshot);
    return count;
}

/// Wine has no answer to GetProcessHandleCount, so each value that a handle can have is tried.
int openHandles() {
    constexpr std::intptr_t LAST = 0x2000;
    int count = 0;
    DWORD flags = 0;
    for (std::intptr_t value = 4; value <= LAST; value += 4) {
        if (::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) ++count;
    }
    return count;
}

}  // namespace

const int Holdings::LATE_HANDLES = 10;

Holdings Holdings::now() {
    Holdings holdings;
    // The private memory: how much of it is resident is for the system to decide.
    PROCESS_MEMORY_COUNTERS counters{};
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters);
    holdings.memoryKb = static_cast<long>(counters.PagefileUsage / 1024);
    holdings.threads = threadsOf(::GetCurrentProcessId());
    holdings.handles = openHandles();
    return holdings;
}

}  // namespace qvtp_test
