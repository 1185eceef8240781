#pragma once

#include <qvtp/Export.h>
#include <qvtp/io/QvPipeException.h>

#include <string>

namespace Quovane::Io {

/// A connect, read, write or accept ran out of time. A request whose connect ran out of time throws QvPipeException
/// with the same text instead. Text, code and copying are those of QvPipeException.
class QVTP_API TimeoutException : public QvPipeException {
  public:
    explicit TimeoutException(const std::string& message);
    TimeoutException(const std::string& message, int code);
    TimeoutException(const TimeoutException& other);
    TimeoutException& operator=(const TimeoutException& other);
    ~TimeoutException() override;
};

}  // namespace Quovane::Io
