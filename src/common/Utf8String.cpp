#include "common/Utf8String.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace Quovane::Soa::Common::Xml {

namespace {

unsigned char byteAt(std::string_view text, std::size_t position) {
    return static_cast<unsigned char>(text[position]);
}

/// What the second byte of a sequence may be, after its first byte (RFC 3629 section 4): the narrower ranges keep out
/// overlong forms, surrogates and everything above U+10FFFF.
bool isSecondByte(unsigned char first, unsigned char second) {
    switch (first) {
        case 0xE0:
            return second >= 0xA0 && second <= 0xBF;
        case 0xED:
            return second >= 0x80 && second <= 0x9F;
        case 0xF0:
            return second >= 0x90 && second <= 0xBF;
        case 0xF4:
            return second >= 0x80 && second <= 0x8F;
        default:
            return second >= 0x80 && second <= 0xBF;
    }
}

std::size_t lengthByFirstByte(unsigned char first) {
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first <= 0xDF) return 2;
    if (first >= 0xE0 && first <= 0xEF) return 3;
    if (first >= 0xF0 && first <= 0xF4) return 4;
    return 0;
}

/// The length of the well-formed sequence that starts here, 0 if none does.
std::size_t sequenceLength(std::string_view text, std::size_t position) {
    const unsigned char first = byteAt(text, position);
    const std::size_t length = lengthByFirstByte(first);
    if (length == 0 || position + length > text.size()) return 0;
    if (length > 1 && !isSecondByte(first, byteAt(text, position + 1))) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if ((byteAt(text, position + i) & 0xC0) != 0x80) return 0;
    }
    return length;
}

void appendLatin1(std::string& out, unsigned char byte) {
    out += static_cast<char>(0xC0 | (byte >> 6));
    out += static_cast<char>(0x80 | (byte & 0x3F));
}

constexpr std::uint64_t EIGHT_BYTES = 0x0101010101010101;
constexpr std::uint64_t HIGH_BITS = 0x80 * EIGHT_BYTES;

/// Whether `isOdd(eight bytes)` says so of no part of the text. The last part overlaps the one before it. Blanks stand
/// in for what a short text lacks.
template <typename IsOdd>
bool isWithout(std::string_view text, const IsOdd& isOdd) {
    std::uint64_t word = ' ' * EIGHT_BYTES;
    if (text.size() < sizeof word) {
        for (const char c : text) word = word << 8 | static_cast<unsigned char>(c);
        return !isOdd(word);
    }
    const char* const last = text.data() + text.size() - sizeof word;
    for (const char* part = text.data(); part < last; part += sizeof word) {
        std::memcpy(&word, part, sizeof word);
        if (isOdd(word)) return false;
    }
    std::memcpy(&word, last, sizeof word);
    return !isOdd(word);
}

std::string wellFormed(std::string_view in) {
    std::string result;
    result.reserve(in.size());
    for (std::size_t position = 0; position < in.size();) {
        const std::size_t length = sequenceLength(in, position);
        if (length == 0) {
            appendLatin1(result, byteAt(in, position));
            ++position;
        } else {
            result.append(in.substr(position, length));
            position += length;
        }
    }
    return result;
}

bool endsLine(char c) {
    return c == '\r' || c == '\n' || c == '\0';
}

}  // namespace

void Utf8String::encode(const std::string& in, std::string& out) {
    std::string result;
    appendEncoded(in, result);
    out = std::move(result);
}

bool Utf8String::isPlain(std::string_view text) {
    // A byte below ' ' borrows from its high bit.
    return isWithout(text, [](std::uint64_t word) { return ((word - ' ' * EIGHT_BYTES) | word) & HIGH_BITS; });
}

bool Utf8String::isAscii(std::string_view text) {
    return isWithout(text, [](std::uint64_t word) { return word & HIGH_BITS; });
}

void Utf8String::appendEncoded(std::string_view in, std::string& out) {
    if (isPlain(in)) {
        out += in;
        return;
    }
    std::string result = wellFormed(in);
    std::replace_if(result.begin(), result.end(), endsLine, ' ');
    out += result;
}

void Utf8String::decode(const std::string& in, std::string& out) {
    if (isAscii(in)) {
        out = in;
        return;
    }
    out = wellFormed(in);
}

}  // namespace Quovane::Soa::Common::Xml
