#include <qvtp/io/BindException.h>

namespace Quovane::Io {

BindException::BindException(const std::string& message) : QvPipeException(message) {}

BindException::BindException(const std::string& message, int code) : QvPipeException(message, code) {}

BindException::BindException(const BindException& other) = default;

BindException& BindException::operator=(const BindException& other) = default;

BindException::~BindException() = default;

}  // namespace Quovane::Io
