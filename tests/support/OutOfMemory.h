#pragma once

#include <cstddef>

namespace qvtp_test {

/// Makes operator new fail on the calling thread while it is in scope. One at a time; only in programs that have
/// OutOfMemory.cpp among their sources.
class OutOfMemory {
  public:
    enum Extent { ONCE, FROM_THEN_ON };

    /// The nth allocation fails, counted from 1, among those of at least so many bytes; and all further ones if it is
    /// to be so.
    explicit OutOfMemory(long nth = 1, Extent extent = FROM_THEN_ON, std::size_t smallest = 0);
    ~OutOfMemory();
    OutOfMemory(const OutOfMemory&) = delete;
    OutOfMemory& operator=(const OutOfMemory&) = delete;

    /// Whether any allocation has failed: if none has, there were fewer than n.
    bool hasFailed() const;

    /// How many more blocks the calling thread has allocated than freed since it began.
    static long liveBlocks();
};

}  // namespace qvtp_test
