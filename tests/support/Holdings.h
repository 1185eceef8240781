#pragma once

namespace qvtp_test {

/// What this process holds.
struct Holdings {
    long memoryKb = 0;
    int threads = 0;
    int handles = 0;  // descriptors or handles of the system

    static Holdings now();
};

}  // namespace qvtp_test
