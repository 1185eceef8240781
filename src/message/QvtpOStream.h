#pragma once

#include "common/OStreamBuffer.h"
#include "message/QVTP_OBufferWriter.h"

#include <ostream>

namespace Quovane::Internal::Qvtp {

/// An output stream into the body of one message. It throws on badbit, so failures of the pipe reach its writer. A
/// flush sends what a chunked body has so far; a body of known length goes out in full buffers only.
class QvtpOStream : public std::ostream {
  public:
    /// Neither pipe stream nor listener is owned; the listener may be null.
    QvtpOStream(int bufferSize, bool chunked, std::ostream* pipeStream, QvtpHeaderWriter* listener);
    ~QvtpOStream() override;

    /// Writes what is left and ends the message. Call it once.
    void send();
    /// Ends the message without writing anything: it was sent on another way.
    void close();

  private:
    std::ostream* pipeStream_;  // not owned
    QVTP_OBufferWriter writer_;
    Quovane::Soa::Internal::Common::OStreamBuffer<char> buffer_;
};

}  // namespace Quovane::Internal::Qvtp
