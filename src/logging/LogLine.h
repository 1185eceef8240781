#pragma once

#include <qvtp/logging/LoggingLevel.h>

#include <cstdint>
#include <string>

/// The fixed forms of what the two logs contain (docs/log-format.md). Pure functions.
namespace Quovane::Internal::Qvtp::LogLine {

/// A whole line of the diagnostic log. `timeMs`: milliseconds since 1970, printed as UTC.
std::string format(Quovane::Qvtp::LoggingLevel level, std::int64_t timeMs, std::uint32_t threadId,
                   const std::string& correlationId, const std::string& message);

/// The line that marks the start of a message in the communication log. `timeMs` is printed as local time.
std::string formatCommunicationHeader(Quovane::Qvtp::CommunicationLevel direction, std::int64_t timeMs,
                                      const std::string& correlationId);

}  // namespace Quovane::Internal::Qvtp::LogLine
