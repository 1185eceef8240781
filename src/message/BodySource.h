#pragma once

#include "message/InputBuffer.h"

#include <algorithm>
#include <cstddef>
#include <ios>
#include <memory>
#include <utility>

namespace Quovane::Internal::Qvtp {

/// The body of one message, read straight into its reader's memory. It has the states of a stream, since a stream may
/// be asked for later and goes on where this stopped.
class BodySource {
  public:
    /// `bufferSize`: of the stream that may follow.
    BodySource(int bufferSize, std::shared_ptr<InputBuffer> input)
        : pieceSize_(static_cast<std::size_t>(std::max(bufferSize, 1))), input_(std::move(input)) {}

    const std::shared_ptr<InputBuffer>& input() const { return input_; }
    std::ios_base::iostate state() const { return state_; }
    bool good() const { return state_ == std::ios_base::goodbit; }

    /// Reads at most `size` bytes, 0 at the end. What the input throws passes through.
    std::size_t read(char* buffer, std::size_t size) {
        state_ = std::ios_base::badbit;
        const std::size_t count = input_->read(buffer, InputBuffer::pieceSize(size, pieceSize_));
        state_ = count > 0 ? std::ios_base::goodbit : std::ios_base::eofbit | std::ios_base::failbit;
        return count;
    }

  private:
    std::size_t pieceSize_;
    std::shared_ptr<InputBuffer> input_;
    std::ios_base::iostate state_ = std::ios_base::goodbit;
};

}  // namespace Quovane::Internal::Qvtp
