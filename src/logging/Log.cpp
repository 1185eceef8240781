#include "logging/Log.h"

namespace Quovane::Internal::Qvtp {

void log(LoggingLevel level, const std::string& message) {
    if (isEnabled(level)) Logger::instance().writeLine(level, message);
}

void log(LoggingLevel level, const char* message) {
    if (isEnabled(level)) logStep([&] { log(level, std::string(message)); });
}

}  // namespace Quovane::Internal::Qvtp
