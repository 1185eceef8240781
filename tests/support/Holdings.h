#pragma once

namespace qvtp_test {

/// What this process holds.
struct Holdings {
    long memoryKb = 0;
    int threads = 0;
    int handles = 0;  // descriptors or handles of the system

    static Holdings now();

    /// How many handles may come late: on Windows a lock gets one when two threads first meet at it.
    static const int LATE_HANDLES;
};

}  // namespace qvtp_test
