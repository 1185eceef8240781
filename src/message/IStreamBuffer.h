#pragma once

#include "message/InputBuffer.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <streambuf>

namespace Quovane::Internal::Qvtp {

/// A stream buffer over the body of one message.
template <typename CharT>
class IStreamBuffer : public std::basic_streambuf<CharT> {
  public:
    using Traits = std::char_traits<CharT>;
    using typename std::basic_streambuf<CharT>::int_type;

    /// A buffer size below 1 is used as 1. For the rest see InputBuffer.
    IStreamBuffer(int bufferSize, std::uint64_t length, std::istream* stream)
        : input_(std::make_shared<InputBuffer>(length, stream)),
          size_(static_cast<std::size_t>(std::max(bufferSize, 1))),
          buffer_(new CharT[size_]) {}

    /// Shared, so that whoever owns the pipe can see where the body ends when the message is gone.
    const std::shared_ptr<InputBuffer>& input() const { return input_; }

  protected:
    int_type underflow() override {
        const std::size_t count = input_->read(buffer_.get(), size_);
        if (count == 0) return Traits::eof();
        this->setg(buffer_.get(), buffer_.get(), buffer_.get() + count);
        return Traits::to_int_type(buffer_[0]);
    }

  private:
    std::shared_ptr<InputBuffer> input_;
    std::size_t size_;
    std::unique_ptr<CharT[]> buffer_;
};

}  // namespace Quovane::Internal::Qvtp
