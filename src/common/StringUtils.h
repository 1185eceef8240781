#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Quovane::Soa::Internal::Common {

/// Text operations that do not depend on the locale.
class StringUtils {
  public:
    /// The text without blanks, tabs, carriage returns, line feeds, vertical tabs and form feeds at both ends.
    static std::string trim(std::string_view text);
    /// The same for another set of characters.
    static std::string_view trim(std::string_view text, std::string_view characters);

    /// Reads a decimal integer as atoi does: white space, a sign, digits; it stops at the first other character and is
    /// 0 without digits. Saturates at the limits of int, where atoi has no defined result.
    static int toInteger(std::string_view text);

    /// Reads one integer by the same rules from the front of the text and removes what it read. False, with the value
    /// unchanged, when there are no digits.
    static bool scanInteger(std::string_view& text, int& value);

    /// Reads a hexadecimal number as scanf's "%x" does: white space, a sign, "0x", digits; 0 without digits, and
    /// whatever follows is ignored. False when the number does not fit in 32 bits.
    static bool scanHexadecimal(std::string_view text, std::uint32_t& value);
};

}  // namespace Quovane::Soa::Internal::Common
