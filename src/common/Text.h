#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace Quovane::Internal::Qvtp {

/// Room for any number in the forms below.
inline constexpr std::size_t NUMBER_ROOM = 32;

/// Appends a value in the default format of a stream with the classic locale: integers in decimal, six significant
/// digits, pointers in hexadecimal. The global locale has no say, and no stream is made.
template <typename Value>
void appendText(std::string& out, const Value& value) {
    if constexpr (std::is_same_v<Value, char>) {
        out += value;
    } else if constexpr (std::is_floating_point_v<Value>) {
        char digits[NUMBER_ROOM];
        const auto end = std::to_chars(digits, digits + sizeof digits, double{value}, std::chars_format::general, 6);
        out.append(digits, end.ptr);
    } else if constexpr (std::is_integral_v<Value>) {
        char digits[NUMBER_ROOM];
        out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    } else if constexpr (std::is_convertible_v<const Value&, std::string_view>) {
        out += std::string_view(value);
    } else {
        static_assert(std::is_convertible_v<const Value&, const void*>, "only texts, numbers and addresses");
        const auto address = reinterpret_cast<std::uintptr_t>(static_cast<const void*>(value));
        char digits[NUMBER_ROOM];
        if (address != 0) out += "0x";
        out.append(digits, std::to_chars(digits, digits + sizeof digits, address, 16).ptr);
    }
}

/// Its arguments one after another, each as appendText has it.
template <typename... Arguments>
std::string text(const Arguments&... arguments) {
    std::string result;
    (appendText(result, arguments), ...);
    return result;
}

}  // namespace Quovane::Internal::Qvtp
