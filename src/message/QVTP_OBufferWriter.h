#pragma once

#include "common/OBufferWriter.h"
#include "common/OWriter.h"
#include "message/BodyRecord.h"
#include "message/QvtpHeaderWriter.h"

#include <ostream>

namespace Quovane::Internal::Qvtp {

/// Writes the body of one message in its framing, asks for the head before the first byte if somebody is there to write
/// it, and logs what was written.
class QVTP_OBufferWriter : public Quovane::Soa::Internal::Common::OWriter {
  public:
    /// Neither stream nor listener is owned; the listener may be null.
    QVTP_OBufferWriter(int bufferSize, bool chunked, std::ostream* pipeStream, QvtpHeaderWriter* listener);
    ~QVTP_OBufferWriter() override;

    /// Throws QvPipeException after send().
    int write(const char* data, long long length) override;
    void flush() override;
    void send() override;
    /// From now on it is as after send().
    void close() { sent_ = true; }

  private:
    void start();

    Quovane::Soa::Internal::Common::OBufferWriter inner_;
    std::ostream* pipeStream_;  // not owned
    bool started_ = false;
    bool sent_ = false;
    QvtpHeaderWriter* listener_;  // not owned, may be null
    BodyRecord record_;
};

}  // namespace Quovane::Internal::Qvtp
