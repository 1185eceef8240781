#pragma once

#include <algorithm>
#include <streambuf>
#include <string>

namespace qvtp_test {

/// Reads from a string that arrives in two parts: no refill goes across the split. What follows the text is the end.
class ChoppedStreamBuf : public std::streambuf {
  public:
    ChoppedStreamBuf(std::string text, std::size_t split) : text_(std::move(text)), split_(split) {}

    /// How many bytes were not asked for.
    std::size_t left() const { return text_.size() - next_ + static_cast<std::size_t>(egptr() - gptr()); }

  protected:
    int_type underflow() override {
        if (next_ == text_.size()) return traits_type::eof();
        const std::size_t end = next_ < split_ ? std::min(split_, text_.size()) : text_.size();
        char* const begin = &text_[0];
        setg(begin + next_, begin + next_, begin + end);
        next_ = end;
        return traits_type::to_int_type(*gptr());
    }

  private:
    std::string text_;
    std::size_t split_;
    std::size_t next_ = 0;
};

}  // namespace qvtp_test
