#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Quovane::Internal::Qvtp {

/// A text that is put together piece by piece. One that is not longer than most heads needs no memory of its own.
class HeadText {
  public:
    HeadText() = default;
    HeadText(const HeadText&) = delete;
    HeadText& operator=(const HeadText&) = delete;

    HeadText& operator+=(std::string_view piece) {
        if (piece.size() > sizeof usual_ - length_) return appendLong(piece);
        piece.copy(usual_ + length_, piece.size());
        length_ += piece.size();
        return *this;
    }

    /// Until the next piece is added.
    std::string_view view() const { return long_.empty() ? std::string_view(usual_, length_) : long_; }

  private:
    static constexpr std::size_t USUAL_LENGTH = 256;

    HeadText& appendLong(std::string_view piece);

    char usual_[USUAL_LENGTH];
    std::size_t length_ = 0;
    std::string long_;  // the whole text, if it is longer
};

}  // namespace Quovane::Internal::Qvtp
