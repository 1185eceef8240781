#pragma once

#include <qvtp/Export.h>
#include <qvtp/io/QvPipeException.h>

#include <string>

namespace Quovane::Io {

/// A pending read, write or accept was ended by a close, or a stream ended inside a line.
/// Text, code and copying are those of QvPipeException.
class QVTP_API InterruptedException : public QvPipeException {
  public:
    explicit InterruptedException(const std::string& message);
    InterruptedException(const std::string& message, int code);
    InterruptedException(const InterruptedException& other);
    InterruptedException& operator=(const InterruptedException& other);
    ~InterruptedException() override;
};

}  // namespace Quovane::Io
