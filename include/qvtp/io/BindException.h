#pragma once

#include <qvtp/Export.h>
#include <qvtp/io/QvPipeException.h>

#include <string>

namespace Quovane::Io {

/// The name of a server pipe could not be taken: another server has it, or no pipe can have it.
/// Text, code and copying are those of QvPipeException.
class QVTP_API BindException : public QvPipeException {
  public:
    explicit BindException(const std::string& message);
    BindException(const std::string& message, int code);
    BindException(const BindException& other);
    BindException& operator=(const BindException& other);
    ~BindException() override;
};

}  // namespace Quovane::Io
