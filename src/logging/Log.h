#pragma once

#include <qvtp/logging/LoggingLevel.h>

#include "common/System.h"
#include "common/Text.h"
#include "logging/LogStep.h"

#include <cstddef>
#include <string>
#include <type_traits>

/// What the library's own code calls to log. Any thread may; nothing here throws, a line for which there is no memory
/// is dropped, and the thread's last error stays as it was. Literals go straight in; composed messages are lambdas, run
/// only when the level is on: `logDebug([&] { return text("Using QvPipe (", name, "/", binding, ")"); })`.
namespace Quovane::Internal::Qvtp {

using Quovane::Qvtp::CommunicationLevel;
using Quovane::Qvtp::LoggingLevel;

/// The current level.
LoggingLevel loggingLevel();

bool isErrorEnabled();
bool isWarnEnabled();
bool isInfoEnabled();
bool isDebugEnabled();

void logError(const std::string& message);
void logWarn(const std::string& message);
void logInfo(const std::string& message);
void logDebug(const std::string& message);

// Literals: no string is built while the level is off.
void logError(const char* message);
void logWarn(const char* message);
void logInfo(const char* message);
void logDebug(const char* message);

template <typename Compose>
using IfComposes = std::enable_if_t<std::is_invocable_r_v<std::string, Compose>>;

template <typename Compose, typename = IfComposes<Compose>>
void logError(const Compose& compose) {
    if (!isErrorEnabled()) return;
    System::LastErrorGuard guard;
    logStep([&] { logError(std::string(compose())); });
}

template <typename Compose, typename = IfComposes<Compose>>
void logWarn(const Compose& compose) {
    if (!isWarnEnabled()) return;
    System::LastErrorGuard guard;
    logStep([&] { logWarn(std::string(compose())); });
}

template <typename Compose, typename = IfComposes<Compose>>
void logInfo(const Compose& compose) {
    if (!isInfoEnabled()) return;
    System::LastErrorGuard guard;
    logStep([&] { logInfo(std::string(compose())); });
}

template <typename Compose, typename = IfComposes<Compose>>
void logDebug(const Compose& compose) {
    if (!isDebugEnabled()) return;
    System::LastErrorGuard guard;
    logStep([&] { logDebug(std::string(compose())); });
}

/// Whether the communication log records this direction (INPUT or OUTPUT).
bool isCommunicationEnabled(CommunicationLevel direction);

/// Records bytes in the communication log if it records their direction. `header` marks the start of a message.
void logCommunication(CommunicationLevel direction, const char* data, std::size_t length, bool header);
void logCommunication(CommunicationLevel direction, const std::string& data, bool header);

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
