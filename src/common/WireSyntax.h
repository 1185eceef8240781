#pragma once

#include <string_view>

/// The characters that structure messages (docs/wire-format.md).
namespace Quovane::Internal::Qvtp::WireSyntax {

inline constexpr std::string_view LINE_END = "\r\n";
inline constexpr std::string_view LAST_CHUNK = "0\r\n\r\n";
/// Separates the words of a start line.
inline constexpr char BLANK = ' ';
/// Around values, and at the beginning of a line that continues one.
inline constexpr std::string_view BLANKS = " \t";
/// Does not count at the ends of names and values.
inline constexpr std::string_view WHITE_SPACE = " \t\r\n";
/// Separates the values of a header.
inline constexpr char DELIMITER = ',';

}  // namespace Quovane::Internal::Qvtp::WireSyntax
