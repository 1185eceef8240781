#include <qvtp/io/TimeoutException.h>

namespace Quovane::Io {

TimeoutException::TimeoutException(const std::string& message) : QvPipeException(message) {}

TimeoutException::TimeoutException(const std::string& message, int code) : QvPipeException(message, code) {}

TimeoutException::TimeoutException(const TimeoutException& other) = default;

TimeoutException& TimeoutException::operator=(const TimeoutException& other) = default;

TimeoutException::~TimeoutException() = default;

}  // namespace Quovane::Io
