#pragma once

#include <ostream>

namespace Quovane::Internal::Qvtp {

/// Who writes the head of a message. The body's writer asks for it just before the first byte of the body.
class QvtpHeaderWriter {
  public:
    virtual ~QvtpHeaderWriter();
    /// Writes the start line and headers to `out` in one write and flushes it.
    virtual void writeHeaders(std::ostream* out) = 0;
};

}  // namespace Quovane::Internal::Qvtp
