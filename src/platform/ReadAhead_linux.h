#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace Quovane::Internal::Qvtp {

/// What came with a read beyond what it asked for. A message that is a little longer than the reader's buffer takes one
/// call of the system then, instead of two. For the thread that reads.
class ReadAhead {
  public:
    std::size_t size() const { return end_ - begin_; }

    /// Whether the next read should look for more: one of the last reads got all that it asked for, and there was
    /// little more than that. The call for two blocks costs a little more, and most readers get whole messages without
    /// it. Those of messages that are far longer need another call all the same.
    bool isWorthwhile() const { return readsLeft_ > 0; }
    void readEnded(bool gotAll) {
        const bool isFull = size() == CAPACITY;
        if (!gotAll) {
            if (isWorthwhile()) --readsLeft_;
        } else if (isFull) {
            readsLeft_ = -MEMORY;
        } else {
            readsLeft_ = readsLeft_ < 0 ? readsLeft_ + 1 : MEMORY;
        }
    }

    /// Whether there was nothing after it when it came.
    bool wasLast() const { return end_ < CAPACITY; }

    /// Copies at most `length` bytes, the first ones.
    std::size_t copy(char* buffer, std::size_t length) const {
        const std::size_t count = std::min(length, size());
        std::memcpy(buffer, bytes_.data() + begin_, count);
        return count;
    }
    /// The same, and drops them.
    std::size_t take(char* buffer, std::size_t length) {
        const std::size_t count = copy(buffer, length);
        begin_ += count;
        return count;
    }

    /// Where new bytes go, when it is empty, and how many fit.
    char* room() { return bytes_.data(); }
    static constexpr std::size_t capacity() { return CAPACITY; }
    void filled(std::size_t count) {
        begin_ = 0;
        end_ = count;
    }

  private:
    static constexpr std::size_t CAPACITY = 1024;
    static constexpr int MEMORY = 16;

    std::array<char, CAPACITY> bytes_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    int readsLeft_ = 0;  // less than 0: so many full reads more without a look
};

}  // namespace Quovane::Internal::Qvtp
