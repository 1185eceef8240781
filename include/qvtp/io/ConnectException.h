#pragma once

#include <qvtp/Export.h>
#include <qvtp/io/QvPipeException.h>

#include <string>

namespace Quovane::Io {

/// A client could not open the pipe: no server has created the name, or access is denied. QvPipe throws it. A request
/// throws QvPipeException with the same text instead.
/// Text, code and copying are those of QvPipeException.
class QVTP_API ConnectException : public QvPipeException {
  public:
    explicit ConnectException(const std::string& message);
    ConnectException(const std::string& message, int code);
    ConnectException(const ConnectException& other);
    ConnectException& operator=(const ConnectException& other);
    ~ConnectException() override;
};

}  // namespace Quovane::Io
