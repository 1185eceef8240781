#include "message/QvtpIStream.h"

namespace Quovane::Internal::Qvtp {

QvtpIStream::QvtpIStream(int bufferSize, std::uint64_t length, std::istream* pipeStream)
    : std::istream(nullptr), buffer_(bufferSize, length, pipeStream) {
    rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
}

QvtpIStream::~QvtpIStream() = default;

}  // namespace Quovane::Internal::Qvtp
