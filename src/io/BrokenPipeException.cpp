#include <qvtp/io/BrokenPipeException.h>

namespace Quovane::Io {

BrokenPipeException::BrokenPipeException(const std::string& message) : QvPipeException(message) {}

BrokenPipeException::BrokenPipeException(const std::string& message, int code) : QvPipeException(message, code) {}

BrokenPipeException::BrokenPipeException(const BrokenPipeException& other) = default;

BrokenPipeException& BrokenPipeException::operator=(const BrokenPipeException& other) = default;

BrokenPipeException::~BrokenPipeException() = default;

}  // namespace Quovane::Io
