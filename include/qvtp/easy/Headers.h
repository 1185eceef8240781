#pragma once
#include <qvtp/easy/Error.h>
#include <algorithm>
#include <charconv>

namespace qvtp {
/// Names and values. What was received has each name once, in the order of the upper-cased names, and its values joined
/// by ", ". What is sent may repeat a name. A name consists of letters, digits, and marks such as - and _; a value has
/// no control characters; Content-Length and Transfer-Encoding are the library's own. All else is misuse.
using Headers = std::vector<std::pair<std::string, std::string>>;
namespace detail {
namespace exact = Quovane::Qvtp;
class Dispatcher;
constexpr std::string_view PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
/// But for the case of ASCII letters.
inline bool equalNames(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char l, char r) {
        return l == r || ((l | 32) == (r | 32) && (l | 32) >= 'a' && (l | 32) <= 'z');
    });
}
inline bool hasControls(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; });
}
/// What is wrong with them, or an empty text.
inline std::string faultOf(const Headers& headers) {
    for (const auto& [name, value] : headers) {
        const bool isToken = !name.empty() && name.find_first_not_of(std::string(PLAIN) + "!#$%&'*+^`|") == name.npos;
        const bool isFraming = equalNames(name, "Content-Length") || equalNames(name, "Transfer-Encoding");
        if (isToken && !isFraming && !hasControls(value)) continue;
        return "The header \"" + name + "\" has no possible name or value, or is the library's own.";
    }
    return {};
}
/// Those that the library has set itself are replaced.
inline void copyHeaders(const Headers& headers, exact::QvtpMessageOut& message) {
    for (const auto& [name, value] : headers) {
        const bool isSet = equalNames(name, "User-Agent") || equalNames(name, "Server");
        isSet ? message.setHeader(name, value) : message.addHeader(name, value);
    }
}
inline Headers headersOf(exact::QvtpMessageIn& message) {
    Headers headers;
    for (const std::string& name : message.getHeaderNames()) {
        std::string joined;
        for (const std::string& value : message.getHeaders(name)) joined += (joined.empty() ? "" : ", ") + value;
        headers.emplace_back(name, joined);
    }
    return headers;
}
inline std::string bodyOf(exact::QvtpMessageIn& message) {
    char* data = nullptr;
    std::size_t size = 0;
    message.getBody(&data, size);
    return std::string(std::unique_ptr<char[]>(data).get(), size);
}
}  // namespace detail
/// The first value of this name, in whatever case, or an empty text.
inline std::string valueOf(const Headers& headers, std::string_view name) {
    for (const auto& [key, value] : headers) {
        if (detail::equalNames(key, name)) return value;
    }
    return {};
}
/// Makes any text a part of a resource, as in "/files/" + percentEncode(name): all bytes but letters, digits and
/// - . _ ~ become % and two hexadecimal digits, "/" too.
inline std::string percentEncode(std::string_view text) {
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool isPlain = detail::PLAIN.find(c) != std::string_view::npos;
        result += isPlain ? std::string(1, c) : std::string{'%', DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
    return result;
}
/// The text that percentEncode() was given. A % without two hexadecimal digits after it stays as it is.
inline std::string percentDecode(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char *const hex = text.data() + i + 1, *const end = hex + 2;
        unsigned byte = 0;
        const bool isEscape = text[i] == '%' && text.size() - i > 2 && std::from_chars(hex, end, byte, 16).ptr == end;
        result += isEscape ? static_cast<char>(byte) : text[i];
        if (isEscape) i += 2;
    }
    return result;
}
}  // namespace qvtp
