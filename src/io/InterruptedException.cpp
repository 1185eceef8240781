#include <qvtp/io/InterruptedException.h>

namespace Quovane::Io {

InterruptedException::InterruptedException(const std::string& message) : QvPipeException(message) {}

InterruptedException::InterruptedException(const std::string& message, int code) : QvPipeException(message, code) {}

InterruptedException::InterruptedException(const InterruptedException& other) = default;

InterruptedException& InterruptedException::operator=(const InterruptedException& other) = default;

InterruptedException::~InterruptedException() = default;

}  // namespace Quovane::Io
