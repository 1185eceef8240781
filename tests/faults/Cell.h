#pragma once

#include "faults/FaultShim.h"
#include "faults/Scenario.h"

#include <atomic>
#include <string>

namespace qvtp_test::faults {

/// A scenario with one way of letting it fail.
struct Cell {
    Entry entry;
    Plan plan;  // its nth is the first one
    bool logged = false;
    int stride = 1;
    int settlingMs = 700;  // how long what ends on other threads may take

    std::string title() const;
};

/// What a cell's process reports. It lies in memory that its parent sees too, so that a crash loses nothing.
struct Progress {
    std::atomic<long> steps;     // moves as long as nothing hangs
    std::atomic<long> nth;       // the fault that is being injected
    std::atomic<long> injected;  // acts with a fault in them
    std::atomic<long> failures;  // of the library: what the machine has found
    std::atomic<long> calls;     // that failed
    std::atomic<bool> done;
};

/// Runs a cell in this process, from the plan's nth fault to the last one.
void runCell(const Cell& cell, Progress& progress);

}  // namespace qvtp_test::faults
