#include "message/QVTP_OBufferWriter.h"

#include <qvtp/io/QvPipeException.h>

#include <algorithm>

namespace Quovane::Internal::Qvtp {

QVTP_OBufferWriter::QVTP_OBufferWriter(int bufferSize, bool chunked, std::ostream* pipeStream,
                                       QvtpHeaderWriter* listener)
    : inner_(pipeStream, bufferSize, chunked), pipeStream_(pipeStream), listener_(listener) {}

QVTP_OBufferWriter::~QVTP_OBufferWriter() = default;

int QVTP_OBufferWriter::write(const char* data, long long length) {
    // The spelling is part of the interface: applications match this text.
    if (sent_) throw Io::QvPipeException("Atempt to write to the QvPipe  after the message has been sent.");
    if (!started_) start();
    record_.add(data, static_cast<std::size_t>(std::max(length, 0LL)));
    return inner_.write(data, length);
}

void QVTP_OBufferWriter::start() {
    if (listener_ != nullptr) listener_->writeHeaders(pipeStream_);
    started_ = true;
    record_.start();
}

void QVTP_OBufferWriter::flush() {
    inner_.flush();
}

void QVTP_OBufferWriter::send() {
    flush();
    record_.log();
    sent_ = true;
    inner_.send();
}

}  // namespace Quovane::Internal::Qvtp
