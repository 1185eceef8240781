#pragma once

#include <qvtp/logging/LoggingLevel.h>

#include "common/System.h"
#include "common/Text.h"
#include "logging/LogStep.h"
#include "logging/Logger.h"

#include <cstddef>
#include <string>
#include <type_traits>

/// What the library's own code calls to log. Any thread may; nothing here throws, a line for which there is no memory
/// is dropped, and the thread's last error stays as it was. Literals go straight in; composed messages are lambdas, run
/// only when the level is on: `logDebug([&] { return text("Using QvPipe (", name, "/", binding, ")"); })`.
namespace Quovane::Internal::Qvtp {

using Quovane::Qvtp::CommunicationLevel;
using Quovane::Qvtp::LoggingLevel;

// Log calls test the level themselves. The level and its four tests are for code that prepares more than a message; not
// all of them have a caller in the library today.
inline LoggingLevel loggingLevel() {
    return Logger::level();
}

inline bool isEnabled(LoggingLevel level) {
    return Logger::isEnabled(level);
}

void log(LoggingLevel level, const std::string& message);
/// A literal: no string is built while the level is off.
void log(LoggingLevel level, const char* message);

template <typename Compose>
using IfComposes = std::enable_if_t<std::is_invocable_r_v<std::string, Compose>>;

template <typename Compose, typename = IfComposes<Compose>>
void log(LoggingLevel level, const Compose& compose) {
    if (!isEnabled(level)) return;
    System::LastErrorGuard guard;
    logStep([&] { log(level, std::string(compose())); });
}

// The four names under which the code logs. A message is a string, a literal or what composes one.

template <typename Message>
void logError(const Message& message) {
    log(LoggingLevel::ERROR, message);
}

template <typename Message>
void logWarn(const Message& message) {
    log(LoggingLevel::WARN, message);
}

template <typename Message>
void logInfo(const Message& message) {
    log(LoggingLevel::INFO, message);
}

template <typename Message>
void logDebug(const Message& message) {
    log(LoggingLevel::DEBUG, message);
}

inline bool isErrorEnabled() {
    return isEnabled(LoggingLevel::ERROR);
}

inline bool isWarnEnabled() {
    return isEnabled(LoggingLevel::WARN);
}

inline bool isInfoEnabled() {
    return isEnabled(LoggingLevel::INFO);
}

inline bool isDebugEnabled() {
    return isEnabled(LoggingLevel::DEBUG);
}

/// Whether the communication log records this direction (INPUT or OUTPUT).
inline bool isCommunicationEnabled(CommunicationLevel direction) {
    return Logger::isEnabled(direction);
}

/// Records bytes in the communication log if it records their direction. `header` marks the start of a message.
inline void logCommunication(CommunicationLevel direction, const char* data, std::size_t length, bool header) {
    if (isCommunicationEnabled(direction)) Logger::instance().writeCommunication(direction, data, length, header);
}

inline void logCommunication(CommunicationLevel direction, const std::string& data, bool header) {
    logCommunication(direction, data.data(), data.size(), header);
}

/// Logs the text at ERROR and throws it as an `Exception`, so that the two can never differ.
template <typename Exception>
[[noreturn]] void logErrorAndThrow(const std::string& message) {
    logError(message);
    throw Exception(message);
}

template <typename Exception>
[[noreturn]] void logErrorAndThrow(const std::string& message, int code) {
    logError(message);
    throw Exception(message, code);
}

}  // namespace Quovane::Internal::Qvtp
