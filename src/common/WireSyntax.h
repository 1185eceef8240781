#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

/// The characters that structure messages (docs/wire-format.md).
namespace Quovane::Internal::Qvtp::WireSyntax {

inline constexpr std::string_view LINE_END = "\r\n";
inline constexpr std::string_view LAST_CHUNK = "0\r\n\r\n";
/// What start lines call the version of this library's messages.
inline constexpr std::string_view VERSION = "QVTP/1.0";
/// Separates the words of a start line.
inline constexpr char BLANK = ' ';
/// Around values, and at the beginning of a line that continues one.
inline constexpr std::string_view BLANKS = " \t";
inline constexpr bool isBlank(char c) {
    return c == ' ' || c == '\t';
}
/// Does not count at the ends of names and values.
inline constexpr bool isWhiteSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
/// Without white space at both ends.
inline constexpr std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isWhiteSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isWhiteSpace(text.back())) text.remove_suffix(1);
    return text;
}
inline constexpr bool isTrimmed(std::string_view text) {
    return text.empty() || (!isWhiteSpace(text.front()) && !isWhiteSpace(text.back()));
}
/// Names match without regard to case. Independent of the locale: bytes above 127 stay as they are.
inline constexpr char upperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}
/// Removes the first line, if its end has come, and gives it without that end.
inline constexpr std::optional<std::string_view> takeLine(std::string_view& bytes) {
    const std::size_t end = bytes.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    std::string_view line = bytes.substr(0, end);
    bytes.remove_prefix(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}
/// Separates the values of a header.
inline constexpr char DELIMITER = ',';

}  // namespace Quovane::Internal::Qvtp::WireSyntax
