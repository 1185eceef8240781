#include "logging/Log.h"

#include "logging/Logger.h"

namespace Quovane::Internal::Qvtp {

LoggingLevel loggingLevel() {
    return Logger::level();
}

bool isErrorEnabled() {
    return Logger::isEnabled(LoggingLevel::ERROR);
}

bool isWarnEnabled() {
    return Logger::isEnabled(LoggingLevel::WARN);
}

bool isInfoEnabled() {
    return Logger::isEnabled(LoggingLevel::INFO);
}

bool isDebugEnabled() {
    return Logger::isEnabled(LoggingLevel::DEBUG);
}

void logError(const std::string& message) {
    if (Logger::isEnabled(LoggingLevel::ERROR)) Logger::instance().writeLine(LoggingLevel::ERROR, message);
}

void logWarn(const std::string& message) {
    if (Logger::isEnabled(LoggingLevel::WARN)) Logger::instance().writeLine(LoggingLevel::WARN, message);
}

void logInfo(const std::string& message) {
    if (Logger::isEnabled(LoggingLevel::INFO)) Logger::instance().writeLine(LoggingLevel::INFO, message);
}

void logDebug(const std::string& message) {
    if (Logger::isEnabled(LoggingLevel::DEBUG)) Logger::instance().writeLine(LoggingLevel::DEBUG, message);
}

void logError(const char* message) {
    if (isErrorEnabled()) logStep([&] { logError(std::string(message)); });
}

void logWarn(const char* message) {
    if (isWarnEnabled()) logStep([&] { logWarn(std::string(message)); });
}

void logInfo(const char* message) {
    if (isInfoEnabled()) logStep([&] { logInfo(std::string(message)); });
}

void logDebug(const char* message) {
    if (isDebugEnabled()) logStep([&] { logDebug(std::string(message)); });
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
