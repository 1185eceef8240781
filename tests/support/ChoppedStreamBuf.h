#pragma once

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>

namespace qvtp_test {

/// Reads from a string that arrives in parts: no refill goes across the split. What follows the text is the end. What
/// came with an earlier refill is overwritten.
class ChoppedStreamBuf : public std::streambuf {
  public:
    static constexpr std::size_t NEVER = std::numeric_limits<std::size_t>::max();

    /// `step`: bytes of each refill at most. `failAt`: where a refill throws std::runtime_error "injected".
    ChoppedStreamBuf(std::string text, std::size_t split, std::size_t step = NEVER, std::size_t failAt = NEVER)
        : text_(std::move(text)), split_(split), step_(step), failAt_(failAt) {}

    /// What was not asked for.
    std::string left() const { return std::string(gptr(), egptr()) + text_.substr(next_); }

  protected:
    int_type underflow() override {
        if (next_ == failAt_) throw std::runtime_error("injected");
        if (next_ == text_.size()) return traits_type::eof();
        std::size_t end = std::min({text_.size(), failAt_, step_ < NEVER ? next_ + step_ : NEVER});
        if (next_ < split_) end = std::min(end, split_);
        area_.assign(text_.size(), '#');
        const auto endOfPart = std::copy(text_.data() + next_, text_.data() + end, area_.data());
        setg(area_.data(), area_.data(), endOfPart);
        next_ = end;
        return traits_type::to_int_type(*gptr());
    }

  private:
    std::string text_;
    std::string area_;
    std::size_t split_;
    std::size_t step_;
    std::size_t failAt_;
    std::size_t next_ = 0;
};

}  // namespace qvtp_test
