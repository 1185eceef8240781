#pragma once

#include <cstddef>
#include <memory_resource>
#include <optional>

namespace Quovane::Internal::Qvtp {

/// Memory for the headers of one message, which ends as a whole. Messages have few headers: these need nothing from the
/// heap. What more of them need comes from there, whatever resource the application has made the default.
class HeaderMemory {
  public:
    HeaderMemory() = default;
    HeaderMemory(const HeaderMemory&) = delete;
    HeaderMemory& operator=(const HeaderMemory&) = delete;

    static constexpr std::size_t ALIGNMENT = alignof(void*);

    void* take(std::size_t size) {
        const std::size_t rounded = (size + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
        if (rounded > sizeof room_ - taken_) return takeMore(size);
        void* const result = room_ + taken_;
        taken_ += rounded;
        return result;
    }

  private:
    static constexpr std::size_t USUAL_SIZE = 512;  // of four headers

    void* takeMore(std::size_t size);

    alignas(ALIGNMENT) std::byte room_[USUAL_SIZE];
    std::size_t taken_ = 0;
    std::optional<std::pmr::monotonic_buffer_resource> more_;
};

/// For the containers of the standard library. What they give up is free again only with the memory.
template <typename T>
class HeaderAllocator {
  public:
    using value_type = T;

    explicit HeaderAllocator(HeaderMemory& memory) : memory_(&memory) {}
    template <typename Other>
    HeaderAllocator(const HeaderAllocator<Other>& other) : memory_(&other.memory()) {}

    T* allocate(std::size_t count) {
        static_assert(alignof(T) <= HeaderMemory::ALIGNMENT);
        return static_cast<T*>(memory_->take(count * sizeof(T)));
    }
    void deallocate(T*, std::size_t) {}
    HeaderMemory& memory() const { return *memory_; }

  private:
    HeaderMemory* memory_;  // not owned
};

template <typename T, typename Other>
bool operator==(const HeaderAllocator<T>& left, const HeaderAllocator<Other>& right) {
    return &left.memory() == &right.memory();
}
template <typename T, typename Other>
bool operator!=(const HeaderAllocator<T>& left, const HeaderAllocator<Other>& right) {
    return !(left == right);
}

}  // namespace Quovane::Internal::Qvtp
