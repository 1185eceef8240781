#pragma once

#include <cstddef>

namespace Quovane::Internal::Qvtp {

/// The memory of a body that is to be sent. Large blocks are kept for the next message, up to 4 MiB in the whole
/// process: given back to the system and taken again, their pages would cost more than sending what is in them.
class BodyBlock {
  public:
    BodyBlock() = default;
    /// Throws std::bad_alloc.
    explicit BodyBlock(std::size_t size);
    BodyBlock(BodyBlock&& other) noexcept;
    BodyBlock& operator=(BodyBlock&& other) noexcept;
    ~BodyBlock();

    char* get() const { return data_; }
    bool isThere() const { return data_ != nullptr; }

  private:
    char* data_ = nullptr;
    std::size_t capacity_ = 0;
};

}  // namespace Quovane::Internal::Qvtp
