#include "message/QVTP_OBufferWriter.h"

#include <qvtp/io/QvPipeException.h>

#include "common/System.h"
#include "logging/Log.h"
#include "message/Throughput.h"

#include <string>

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Common::Xml::StringStream;

QVTP_OBufferWriter::QVTP_OBufferWriter(int bufferSize, bool chunked, std::ostream* pipeStream,
                                       QvtpHeaderWriter* listener)
    : inner_(pipeStream, bufferSize, chunked),
      pipeStream_(pipeStream),
      listener_(listener),
      capture_(isCommunicationEnabled(CommunicationLevel::OUTPUT) ? std::make_unique<StringStream>() : nullptr) {}

QVTP_OBufferWriter::~QVTP_OBufferWriter() = default;

int QVTP_OBufferWriter::write(const char* data, long long length) {
    // The spelling is part of the interface: applications match this text.
    if (sent_) throw Io::QvPipeException("Atempt to write to the QvPipe  after the message has been sent.");
    if (!started_) start();
    if (capture_ != nullptr && length > 0) capture_->write(data, static_cast<std::size_t>(length));
    bytes_ += static_cast<std::uint64_t>(length);
    return inner_.write(data, length);
}

void QVTP_OBufferWriter::start() {
    if (listener_ != nullptr) listener_->writeHeaders(pipeStream_);
    started_ = true;
    startTimeMs_ = System::wallClockMs();
}

void QVTP_OBufferWriter::flush() {
    inner_.flush();
}

void QVTP_OBufferWriter::send() {
    flush();
    if (isInfoEnabled()) logWritten();
    sent_ = true;
    inner_.send();
}

void QVTP_OBufferWriter::logWritten() {
    logInfo(Throughput::describeWritten(bytes_, startTimeMs_, System::wallClockMs()));
    if (capture_ == nullptr) return;
    capture_->write("\n", 1);
    std::string written;
    capture_->str(written);
    logCommunication(CommunicationLevel::OUTPUT, written, false);
}

}  // namespace Quovane::Internal::Qvtp
