#pragma once

#include <qvtp/Export.h>
#include <qvtp/io/QvPipeException.h>

#include <string>

namespace Quovane::Io {

/// The other end closed the pipe before everything was written.
/// Text, code and copying are those of QvPipeException.
class QVTP_API BrokenPipeException : public QvPipeException {
  public:
    explicit BrokenPipeException(const std::string& message);
    BrokenPipeException(const std::string& message, int code);
    BrokenPipeException(const BrokenPipeException& other);
    BrokenPipeException& operator=(const BrokenPipeException& other);
    ~BrokenPipeException() override;
};

}  // namespace Quovane::Io
