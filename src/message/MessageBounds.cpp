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

bool isName(std::string_view name, std::string_view other) {
    return std::equal(name.begin(), name.end(), other.begin(), other.end(),
                      [](char a, char b) { return WireSyntax::upperCase(a) == WireSyntax::upperCase(b); });
}

struct Header {
    std::string_view name;
    std::string_view value;
};

Header headerOf(std::string_view line) {
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view value = line.substr(std::min(colon + 1, line.size()));
    return {WireSyntax::trimmed(line.substr(0, colon)), WireSyntax::trimmed(value)};
}

bool announcesBody(const Header& header) {
    return isName(header.name, QvtpMessage::HEADER_CONTENT_LENGTH) ||
           isName(header.name, QvtpMessage::HEADER_TRANSFER_ENCODING);
}

/// The length of a body, as InputBuffer has it, if it is announced in the usual way.
std::optional<std::uint64_t> lengthOf(const Header& header) {
    if (isName(header.name, QvtpMessage::HEADER_TRANSFER_ENCODING)) {
        if (header.value == QvtpMessage::HEADER_CHUNKED_ENCODING) return InputBuffer::CHUNKED;
        return std::nullopt;
    }
    std::string_view value = header.value;
    int length = 0;
    if (!StringUtils::scanInteger(value, length) || length < 0) return std::nullopt;
    return static_cast<std::uint64_t>(length);
}

/// Removes the headers with the empty line after them. Nothing if they are not whole, or announce anything but one
/// length in the usual way. A line that continues the one before may change that.
std::optional<std::uint64_t> takeHeaders(std::string_view& bytes) {
    std::optional<std::uint64_t> length;
    for (;;) {
        const auto line = WireSyntax::takeLine(bytes);
        if (!line) return std::nullopt;
        if (line->empty()) return length;
        const Header header = headerOf(*line);
        const bool isContinuation = WireSyntax::isBlank(line->front());
        if (isContinuation || (length && announcesBody(header))) return std::nullopt;
        if (!announcesBody(header)) continue;
        length = lengthOf(header);
        if (!length) return std::nullopt;
    }
}

/// Removes the empty lines before a message and its start line. False if that has not come.
bool takeStartLine(std::string_view& bytes) {
    for (;;) {
        const auto line = WireSyntax::takeLine(bytes);
        if (!line) return false;
        if (!line->empty()) return true;
    }
}

/// Whether there is nothing but empty lines, of which the last may still be coming.
bool isEmpty(std::string_view bytes) {
    return bytes.find_first_not_of(WireSyntax::LINE_END) == std::string_view::npos;
}

}  // namespace

bool areWholeMessages(std::string_view bytes) {
    while (!isEmpty(bytes)) {
        if (!takeStartLine(bytes)) return false;
        const auto length = takeHeaders(bytes);
        if (!length || !InputBuffer::removeWhole(*length, bytes)) return false;
    }
    return true;
}

}  // namespace Quovane::Internal::Qvtp::MessageBounds
