#pragma once

namespace qvtp_test {

/// While it lives, the n-th allocation by operator new of the calling thread fails, counted from here on; with
/// `lasting` all after it too. Other threads are not affected. One at a time on each thread.
///
/// A program that uses it links the CMake target qvtp_test_allocation, which replaces the operators of the program.
class AllocationFailure {
  public:
    enum class Duration { ONCE, LASTING };

    explicit AllocationFailure(int n, Duration duration = Duration::ONCE);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    /// Whether it has come to that: a loop over n ends when it has not.
    bool hasHappened() const;
};

}  // namespace qvtp_test
