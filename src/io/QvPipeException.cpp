#include <qvtp/io/QvPipeException.h>

namespace Quovane::Io {

QvPipeException::QvPipeException(const std::string& message) : QvPipeException(message, 0) {}

QvPipeException::QvPipeException(const std::string& message, int code)
    : std::ios_base::failure(message, std::io_errc::stream), message_(message), code_(code) {}

QvPipeException::QvPipeException(const QvPipeException& other) = default;

QvPipeException& QvPipeException::operator=(const QvPipeException& other) = default;

QvPipeException::~QvPipeException() = default;

std::string QvPipeException::getMessage() {
    return message_;
}

int QvPipeException::getCode() {
    return code_;
}

}  // namespace Quovane::Io
