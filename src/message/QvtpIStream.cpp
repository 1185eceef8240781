#include "message/QvtpIStream.h"

#include <utility>

namespace Quovane::Internal::Qvtp {

QvtpIStream::QvtpIStream(int bufferSize, std::uint64_t length, std::istream* pipeStream)
    : QvtpIStream(bufferSize, std::make_shared<InputBuffer>(length, pipeStream), goodbit) {}

QvtpIStream::QvtpIStream(int bufferSize, std::shared_ptr<InputBuffer> input, std::ios_base::iostate state)
    : std::istream(nullptr), buffer_(bufferSize, std::move(input)) {
    rdbuf(&buffer_);
    exceptions(badbit);
    try {
        setstate(state);
    } catch (const failure&) {
        // Its reader has had the pipe's own exception.
    }
}

QvtpIStream::~QvtpIStream() = default;

}  // namespace Quovane::Internal::Qvtp
