#include "logging/LogLine.h"

#include "common/System.h"

#include <cstdio>
#include <ctime>

namespace Quovane::Internal::Qvtp::LogLine {

namespace {

using Quovane::Qvtp::CommunicationLevel;
using Quovane::Qvtp::LoggingLevel;

constexpr const char* LEVEL_NAMES[] = {"OFF  ", "ERROR", "WARN ", "INFO ", "DEBUG"};
constexpr const char* DIRECTION_TAGS[] = {" [OFF   ] ", " [INPUT ] ", " [OUTPUT] "};
constexpr std::size_t TIME_LENGTH = 124;
constexpr std::size_t CORRELATION_WIDTH = 50;

/// Blanks, not zeros, fill the three places: readers of these lines match this form.
std::string formatMilliseconds(std::int64_t timeMs) {
    char buffer[TIME_LENGTH];
    std::snprintf(buffer, sizeof buffer, ".%3u", static_cast<unsigned>(timeMs % 1000));
    return buffer;
}

}  // namespace

std::string format(LoggingLevel level, std::int64_t timeMs, std::uint32_t threadId, const std::string& correlationId,
                   const std::string& message) {
    const std::tm utc = System::utcTime(static_cast<std::time_t>(timeMs / 1000));
    char time[TIME_LENGTH];
    std::strftime(time, sizeof time, "%Y/%m/%d-%H:%M:%S", &utc);
    std::string line = LEVEL_NAMES[static_cast<int>(level)];
    line += " - ";
    line += time + formatMilliseconds(timeMs);
    line += " UTC - Thread-";
    line += std::to_string(threadId);
    line += ": ";
    line += correlationId;
    line += " - ";
    line += message;
    // No blank before the dash: readers of these lines match this form.
    line += "- Quovane.SOA.Qvtp\n";
    return line;
}

std::string formatCommunicationHeader(CommunicationLevel direction, std::int64_t timeMs,
                                      const std::string& correlationId) {
    const std::tm local = System::localTime(static_cast<std::time_t>(timeMs / 1000));
    char time[TIME_LENGTH];
    std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S", &local);
    std::string line = time + formatMilliseconds(timeMs);
    line += DIRECTION_TAGS[static_cast<int>(direction)];
    line += correlationId;
    if (correlationId.size() < CORRELATION_WIDTH) line.append(CORRELATION_WIDTH - correlationId.size(), ' ');
    line += '\n';
    return line;
}

}  // namespace Quovane::Internal::Qvtp::LogLine
