#include <qvtp/io/ConnectException.h>

namespace Quovane::Io {

ConnectException::ConnectException(const std::string& message) : QvPipeException(message) {}

ConnectException::ConnectException(const std::string& message, int code) : QvPipeException(message, code) {}

ConnectException::ConnectException(const ConnectException& other) = default;

ConnectException& ConnectException::operator=(const ConnectException& other) = default;

ConnectException::~ConnectException() = default;

}  // namespace Quovane::Io
