#include "message/QvtpOStream.h"

namespace Quovane::Internal::Qvtp {

QvtpOStream::QvtpOStream(int bufferSize, bool chunked, std::ostream* pipeStream, QvtpHeaderWriter* listener)
    : std::ostream(nullptr),
      pipeStream_(pipeStream),
      writer_(bufferSize, chunked, pipeStream, listener),
      buffer_(&writer_, chunked) {
    rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
}

QvtpOStream::~QvtpOStream() = default;

void QvtpOStream::close() {
    writer_.close();
}

void QvtpOStream::send() {
    buffer_.send();
    // A pipe's stream throws by itself; any other shows its failure only in its state.
    if (pipeStream_->bad()) setstate(std::ios_base::badbit);
}

}  // namespace Quovane::Internal::Qvtp
