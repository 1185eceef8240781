#include "common/BodyBlock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr std::size_t SMALLEST_KEPT = std::size_t{128} * 1024;  // smaller ones stay in the heap anyway
constexpr std::size_t MOST_KEPT = std::size_t{4} * 1024 * 1024;

/// The blocks that nobody uses now. It never waits for its lock: in a forked child that may be held for ever.
class SpareBlocks {
  public:
    constexpr SpareBlocks() = default;

    /// A block of at least this size, but not much more. Null if there is none.
    char* take(std::size_t size, std::size_t& capacity) {
        const Try lock(taken_);
        if (!lock.succeeded()) return nullptr;
        for (Spare& spare : spares_) {
            if (spare.capacity < size || spare.capacity / 2 > size) continue;
            kept_ -= spare.capacity;
            capacity = std::exchange(spare.capacity, 0);
            return std::exchange(spare.data, nullptr);
        }
        return nullptr;
    }

    /// False if it has no room for the block.
    bool keep(char* data, std::size_t capacity) {
        const Try lock(taken_);
        if (!lock.succeeded() || kept_ + capacity > MOST_KEPT) return false;
        const auto free =
            std::find_if(spares_.begin(), spares_.end(), [](const Spare& s) { return s.data == nullptr; });
        if (free == spares_.end()) return false;
        *free = {data, capacity};
        kept_ += capacity;
        return true;
    }

  private:
    struct Spare {
        char* data = nullptr;
        std::size_t capacity = 0;
    };

    /// The lock, if nobody else has it. Not a mutex, which is no constant everywhere.
    class Try {
      public:
        explicit Try(std::atomic_flag& flag) : flag_(flag), succeeded_(!flag.test_and_set(std::memory_order_acquire)) {}
        ~Try() {
            if (succeeded_) flag_.clear(std::memory_order_release);
        }
        Try(const Try&) = delete;
        Try& operator=(const Try&) = delete;

        bool succeeded() const { return succeeded_; }

      private:
        std::atomic_flag& flag_;
        const bool succeeded_;
    };

    std::atomic_flag taken_ = ATOMIC_FLAG_INIT;  // guards the rest
    std::array<Spare, 16> spares_{};
    std::size_t kept_ = 0;
};

/// Never freed: static objects may send messages. Made before the program begins, since a forked child would wait for
/// ever for another thread of its parent that was about to make it.
SpareBlocks spareBlocks;
static_assert(std::is_trivially_destructible_v<SpareBlocks>);

}  // namespace

BodyBlock::BodyBlock(std::size_t size) : capacity_(size) {
    if (size <= SMALL) {
        data_ = small_.data();
        return;
    }
    if (size >= SMALLEST_KEPT) data_ = spareBlocks.take(size, capacity_);
    if (data_ != nullptr) return;
    char* const memory = new char[ROOM_BEFORE + size];
    data_ = memory + ROOM_BEFORE;
}

BodyBlock::BodyBlock(BodyBlock&& other) noexcept {
    takeFrom(other);
}

BodyBlock& BodyBlock::operator=(BodyBlock&& other) noexcept {
    if (this == &other) return *this;
    release();
    takeFrom(other);
    return *this;
}

BodyBlock::~BodyBlock() {
    release();
}

const char* BodyBlock::putBefore(std::string_view head) noexcept {
    if (data_ == nullptr || isSmall() || head.size() > ROOM_BEFORE) return nullptr;
    head.copy(data_ - head.size(), head.size());
    return data_ - head.size();
}

void BodyBlock::takeFrom(BodyBlock& other) noexcept {
    if (other.isSmall()) {
        std::memcpy(small_.data(), other.small_.data(), other.capacity_);
        other.data_ = nullptr;
        data_ = small_.data();
    } else {
        data_ = std::exchange(other.data_, nullptr);
    }
    capacity_ = std::exchange(other.capacity_, 0);
}

void BodyBlock::release() noexcept {
    if (data_ == nullptr || isSmall()) return;
    const bool isLarge = capacity_ >= SMALLEST_KEPT;
    if (!isLarge || !spareBlocks.keep(data_, capacity_)) delete[](data_ - ROOM_BEFORE);
}

}  // namespace Quovane::Internal::Qvtp
