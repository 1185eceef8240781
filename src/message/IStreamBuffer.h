#pragma once

#include "message/InputBuffer.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <streambuf>
#include <utility>

namespace Quovane::Internal::Qvtp {

/// A stream buffer over the body of one message.
template <typename CharT>
class IStreamBuffer : public std::basic_streambuf<CharT> {
  public:
    using Traits = std::char_traits<CharT>;
    using typename std::basic_streambuf<CharT>::int_type;

    /// A buffer size below 1 is used as 1. For the rest see InputBuffer.
    IStreamBuffer(int bufferSize, std::uint64_t length, std::istream* stream)
        : IStreamBuffer(bufferSize, std::make_shared<InputBuffer>(length, stream)) {}
    IStreamBuffer(int bufferSize, std::shared_ptr<InputBuffer> input)
        : input_(std::move(input)),
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

    /// Whole multiples of the buffer's size go straight to the caller.
    std::streamsize xsgetn(CharT* out, std::streamsize wanted) override {
        const std::streamsize there = std::min<std::streamsize>(wanted, this->egptr() - this->gptr());
        std::streamsize filled = there > 0 ? Base::xsgetn(out, there) : 0;
        const auto size = static_cast<std::streamsize>(size_);
        while (wanted - filled >= size) {
            const auto multiple = static_cast<std::size_t>(wanted - filled - (wanted - filled) % size);
            const std::size_t count = input_->read(out + filled, input_->pieceSize(multiple, size_));
            if (count == 0) return filled;
            filled += static_cast<std::streamsize>(count);
        }
        return filled < wanted ? filled + Base::xsgetn(out + filled, wanted - filled) : filled;
    }

  private:
    using Base = std::basic_streambuf<CharT>;

    std::shared_ptr<InputBuffer> input_;
    std::size_t size_;
    std::unique_ptr<CharT[]> buffer_;
};

}  // namespace Quovane::Internal::Qvtp
