#include <qvtp/io/IllegalArgumentException.h>

namespace Quovane::Io {

IllegalArgumentException::IllegalArgumentException(const std::string& message) : IllegalArgumentException(message, 0) {}

IllegalArgumentException::IllegalArgumentException(const std::string& message, int code)
    : message_(message), code_(code) {}

IllegalArgumentException::IllegalArgumentException(const IllegalArgumentException& other) = default;

IllegalArgumentException& IllegalArgumentException::operator=(const IllegalArgumentException& other) = default;

IllegalArgumentException::~IllegalArgumentException() = default;

}  // namespace Quovane::Io
