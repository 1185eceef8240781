#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace Quovane::Internal::Qvtp {

/// The memory of a body that is to be sent. A small one is in the object itself. Large blocks are kept for the next
/// message, up to 4 MiB in the whole process: given back to the system and taken again, their pages would cost more
/// than sending what is in them.
class BodyBlock {
  public:
    BodyBlock() = default;
    /// Throws std::bad_alloc.
    explicit BodyBlock(std::size_t size);
    BodyBlock(BodyBlock&& other) noexcept;
    BodyBlock& operator=(BodyBlock&& other) noexcept;
    ~BodyBlock();

    char* get() const { return data_; }
    /// Copies the head of a message to right before its body, so that both are one block. Null if it does not fit: a
    /// small body has no room there.
    const char* putBefore(std::string_view head) noexcept;
    bool isThere() const { return data_ != nullptr; }

  private:
    static constexpr std::size_t SMALL = 72;
    static constexpr std::size_t ROOM_BEFORE = 256;  // for most heads; before each block that is not small

    bool isSmall() const { return data_ == small_.data(); }
    void takeFrom(BodyBlock& other) noexcept;
    void release() noexcept;

    char* data_ = nullptr;
    std::size_t capacity_ = 0;
    std::array<char, SMALL> small_;
};

}  // namespace Quovane::Internal::Qvtp
