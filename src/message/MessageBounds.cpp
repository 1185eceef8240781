#include "message/MessageBounds.h"

#include <qvtp/message/QvtpMessage.h>

#include "common/StringUtils.h"
#include "common/WireSyntax.h"
#include "message/InputBuffer.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace Quovane::Internal::Qvtp::MessageBounds {

using Quovane::Qvtp::QvtpMessage;
using Quovane::Soa::Internal::Common::StringUtils;

namespace {

/// Removes the first line, if its end has come. Without that end.
std::optional<std::string_view> takeLine(std::string_view& bytes) {
    const std::size_t end = bytes.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    std::string_view line = bytes.substr(0, end);
    bytes.remove_prefix(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

bool isName(std::string_view name, std::string_view other) {
    return std::equal(name.begin(), name.end(), other.begin(), other.end(),
                      [](char a, char b) { return WireSyntax::upperCase(a) == WireSyntax::upperCase(b); });
}

/// The length of a body, as InputBuffer has it, if this line announces one in the usual way.
std::optional<std::uint64_t> lengthOf(std::string_view line) {
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view name = WireSyntax::trimmed(line.substr(0, colon));
    std::string_view value = WireSyntax::trimmed(line.substr(std::min(colon + 1, line.size())));
    int length = 0;
    if (isName(name, QvtpMessage::HEADER_CONTENT_LENGTH) && StringUtils::scanInteger(value, length) && length >= 0) {
        return static_cast<std::uint64_t>(length);
    }
    const bool isChunked =
        isName(name, QvtpMessage::HEADER_TRANSFER_ENCODING) && value == QvtpMessage::HEADER_CHUNKED_ENCODING;
    return isChunked ? std::optional(InputBuffer::CHUNKED) : std::nullopt;
}

/// Removes one message. False if it is not whole, or its head leaves a doubt about its length.
bool takeMessage(std::string_view& bytes) {
    std::optional<std::uint64_t> length;
    for (;;) {
        const auto line = takeLine(bytes);
        if (!line) return false;
        if (line->empty()) return length && InputBuffer::removeWhole(*length, bytes);
        if (const auto announced = lengthOf(*line)) {
            if (length) return false;
            length = announced;
        }
    }
}

}  // namespace

bool areWholeMessages(std::string_view bytes) {
    while (!bytes.empty()) {
        if (!takeMessage(bytes)) return false;
    }
    return true;
}

}  // namespace Quovane::Internal::Qvtp::MessageBounds
