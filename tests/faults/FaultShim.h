#pragma once

#include <cstddef>

/// A library that stands before all others of a program, so that its allocations, its starts of threads and its calls
/// of the system pass through here. It counts those of chosen threads and lets chosen ones fail. For tests only.
namespace qvtp_test::faults {

/// What is counted.
enum class Kind { ALLOCATION, THREAD, CALL };

/// What fails, once the nth has been reached: that one, all further ones of the same function, or all of the kind.
enum class Extent { ONCE, SAME_FUNCTION, ALL };

/// Threads are counted by the side that they work for. A thread belongs to the side of the one that started it.
enum Side : unsigned { NEITHER = 0, CLIENT = 1, SERVER = 2 };

struct Plan {
    Kind kind = Kind::ALLOCATION;
    Extent extent = Extent::ONCE;
    long nth = 1;              // counted from 1; 0 for none
    unsigned sides = CLIENT;   // of them all
    int lastingMs = 0;         // how long it fails "for ever", from the first failure on; 0 until the plan ends
    int variant = 0;           // which of a call's errors
    bool interrupt = false;    // every other try of a call that can be interrupted is
    bool singleBytes = false;  // everything that is read or written goes in single bytes
};

/// One at a time in a process. A plan counts from when it begins.
void begin(const Plan& plan);
void end();

/// While a plan is on: how many were counted, how many of them were let fail, how many were interrupted or shortened.
long counted();
long failed();
long disturbed();
/// The function that failed last.
const char* lastFailure();

/// How many blocks of memory the process has allocated and not freed.
long liveBlocks();

/// The calling thread works for this side while it is in scope.
class Working {
  public:
    explicit Working(unsigned side);
    ~Working();
    Working(const Working&) = delete;
    Working& operator=(const Working&) = delete;

  private:
    unsigned before_;
};

}  // namespace qvtp_test::faults
