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
    ~QvtpIStream() override;

    const std::shared_ptr<InputBuffer>& input() const { return buffer_.input(); }

  private:
    IStreamBuffer<char> buffer_;
};

}  // namespace Quovane::Internal::Qvtp
