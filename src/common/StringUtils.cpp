#include "common/StringUtils.h"

#include <limits>

namespace Quovane::Soa::Internal::Common {

namespace {

constexpr std::string_view WHITE_SPACE = " \t\r\n\v\f";

bool isOneOf(char c, std::string_view characters) {
    for (const char character : characters) {
        if (c == character) return true;
    }
    return false;
}

void skipWhiteSpace(std::string_view& text) {
    while (!text.empty() && isOneOf(text.front(), WHITE_SPACE)) text.remove_prefix(1);
}

/// Removes a sign; true when it was a minus.
bool takeSign(std::string_view& text) {
    if (text.empty() || (text.front() != '-' && text.front() != '+')) return false;
    const bool negative = text.front() == '-';
    text.remove_prefix(1);
    return negative;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The value of a hexadecimal digit, or -1.
int hexadecimalDigit(char c) {
    if (isDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string_view StringUtils::trim(std::string_view text, std::string_view characters) {
    while (!text.empty() && isOneOf(text.front(), characters)) text.remove_prefix(1);
    while (!text.empty() && isOneOf(text.back(), characters)) text.remove_suffix(1);
    return text;
}

std::string StringUtils::trim(std::string_view text) {
    return std::string(trim(text, WHITE_SPACE));
}

bool StringUtils::scanInteger(std::string_view& text, int& value) {
    std::string_view rest = text;
    bool negative = false;
    if (!rest.empty() && !isDigit(rest.front())) {
        skipWhiteSpace(rest);
        negative = takeSign(rest);
    }
    if (rest.empty() || !isDigit(rest.front())) return false;

    // Magnitudes grow in 64 bits and stop growing past the limit of int, so nothing overflows.
    const std::int64_t limit = std::int64_t{std::numeric_limits<int>::max()} + (negative ? 1 : 0);
    std::int64_t magnitude = 0;
    while (!rest.empty() && isDigit(rest.front())) {
        if (magnitude <= limit) magnitude = magnitude * 10 + (rest.front() - '0');
        rest.remove_prefix(1);
    }
    if (magnitude > limit) magnitude = limit;
    value = static_cast<int>(negative ? -magnitude : magnitude);
    text = rest;
    return true;
}

int StringUtils::toInteger(std::string_view text) {
    int value = 0;
    scanInteger(text, value);
    return value;
}

bool StringUtils::scanHexadecimal(std::string_view text, std::uint32_t& value) {
    value = 0;
    skipWhiteSpace(text);
    const bool negative = takeSign(text);
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && hexadecimalDigit(text[2]) >= 0) {
        text.remove_prefix(2);
    }
    std::uint64_t magnitude = 0;
    for (char c : text) {
        const int digit = hexadecimalDigit(c);
        if (digit < 0) break;
        magnitude = magnitude * 16 + static_cast<std::uint64_t>(digit);
        if (magnitude > std::numeric_limits<std::uint32_t>::max()) return false;
    }
    value = static_cast<std::uint32_t>(negative ? 0 - magnitude : magnitude);
    return true;
}

}  // namespace Quovane::Soa::Internal::Common
