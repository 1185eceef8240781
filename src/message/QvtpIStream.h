#pragma once

#include "message/IStreamBuffer.h"

#include <istream>
#include <memory>

namespace Quovane::Internal::Qvtp {

/// An input stream over the body of one message. It throws on badbit, so failures of the pipe reach its reader.
class QvtpIStream : public std::istream {
  public:
    /// `length`: bytes of the body, or InputBuffer::CHUNKED. The pipe stream is not owned.
    QvtpIStream(int bufferSize, std::uint64_t length, std::istream* pipeStream);
    /// `state`: what reading from `input` has come to so far.
    QvtpIStream(int bufferSize, std::shared_ptr<InputBuffer> input, std::ios_base::iostate state);
    ~QvtpIStream() override;

    const std::shared_ptr<InputBuffer>& input() const { return buffer_.input(); }

  private:
    IStreamBuffer<char> buffer_;
};

}  // namespace Quovane::Internal::Qvtp
