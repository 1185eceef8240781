#include "logging/Log.h"

#include "logging/Logger.h"

namespace Quovane::Internal::Qvtp {

LoggingLevel loggingLevel() {
    return Logger::level();
}

bool isEnabled(LoggingLevel level) {
    return Logger::isEnabled(level);
}

void log(LoggingLevel level, const std::string& message) {
    if (isEnabled(level)) Logger::instance().writeLine(level, message);
}

void log(LoggingLevel level, const char* message) {
    if (isEnabled(level)) logStep([&] { log(level, std::string(message)); });
}

bool isCommunicationEnabled(CommunicationLevel direction) {
    return Logger::isEnabled(direction);
}

void logCommunication(CommunicationLevel direction, const char* data, std::size_t length, bool header) {
    if (Logger::isEnabled(direction)) Logger::instance().writeCommunication(direction, data, length, header);
}

void logCommunication(CommunicationLevel direction, const std::string& data, bool header) {
    logCommunication(direction, data.data(), data.size(), header);
}

}  // namespace Quovane::Internal::Qvtp
