#include <qvtp/io/IllegalStateException.h>

namespace Quovane::Io {

IllegalStateException::IllegalStateException(const std::string& message) : IllegalStateException(message, 0) {}

IllegalStateException::IllegalStateException(const std::string& message, int code) : message_(message), code_(code) {}

IllegalStateException::IllegalStateException(const IllegalStateException& other) = default;

IllegalStateException& IllegalStateException::operator=(const IllegalStateException& other) = default;

IllegalStateException::~IllegalStateException() = default;

std::string IllegalStateException::getMessage() const {
    return message_;
}

int IllegalStateException::getCode() const {
    return code_;
}

}  // namespace Quovane::Io
