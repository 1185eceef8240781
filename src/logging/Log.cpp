#include "logging/Log.h"

#include "logging/Logger.h"

namespace Quovane::Internal::Qvtp {

LoggingLevel loggingLevel() {
    return Logger::instance().level();
}

bool isErrorEnabled() {
    return Logger::instance().isEnabled(LoggingLevel::ERROR);
}

bool isWarnEnabled() {
    return Logger::instance().isEnabled(LoggingLevel::WARN);
}

bool isInfoEnabled() {
    return Logger::instance().isEnabled(LoggingLevel::INFO);
}

bool isDebugEnabled() {
    return Logger::instance().isEnabled(LoggingLevel::DEBUG);
}

void logError(const std::string& message) {
    Logger::instance().writeLine(LoggingLevel::ERROR, message);
}

void logWarn(const std::string& message) {
    Logger::instance().writeLine(LoggingLevel::WARN, message);
}

void logInfo(const std::string& message) {
    Logger::instance().writeLine(LoggingLevel::INFO, message);
}

void logDebug(const std::string& message) {
    Logger::instance().writeLine(LoggingLevel::DEBUG, message);
}

void logError(const char* message) {
    if (isErrorEnabled()) logError(std::string(message));
}

void logWarn(const char* message) {
    if (isWarnEnabled()) logWarn(std::string(message));
}

void logInfo(const char* message) {
    if (isInfoEnabled()) logInfo(std::string(message));
}

void logDebug(const char* message) {
    if (isDebugEnabled()) logDebug(std::string(message));
}

bool isCommunicationEnabled(CommunicationLevel direction) {
    return Logger::instance().isEnabled(direction);
}

void logCommunication(CommunicationLevel direction, const char* data, std::size_t length, bool header) {
    Logger::instance().writeCommunication(direction, data, length, header);
}

void logCommunication(CommunicationLevel direction, const std::string& data, bool header) {
    logCommunication(direction, data.data(), data.size(), header);
}

}  // namespace Quovane::Internal::Qvtp
