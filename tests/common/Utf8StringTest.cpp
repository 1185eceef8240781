#include "common/Utf8String.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Quovane::Soa::Common::Xml::Utf8String;

std::string encoded(const std::string& text) {
    std::string result = "left over";
    Utf8String::encode(text, result);
    return result;
}

std::string decoded(const std::string& text) {
    std::string result = "left over";
    Utf8String::decode(text, result);
    return result;
}

/// The two-byte form of a byte above 127.
std::string latin1(unsigned byte) {
    return {static_cast<char>(0xC0 | (byte >> 6)), static_cast<char>(0x80 | (byte & 0x3F))};
}

/// Every byte of the text in its Latin-1 form, ASCII as it is.
std::string bytewise(const std::string& text) {
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        result += byte < 0x80 ? std::string(1, c) : latin1(byte);
    }
    return result;
}

/// The first and last sequence of every row of RFC 3629's table.
const std::vector<std::string> WELL_FORMED = {std::string(1, '\x01'),
                                              "\x7F",
                                              "\xC2\x80",
                                              "\xDF\xBF",
                                              "\xE0\xA0\x80",
                                              "\xE0\xBF\xBF",
                                              "\xE1\x80\x80",
                                              "\xEC\xBF\xBF",
                                              "\xED\x80\x80",
                                              "\xED\x9F\xBF",
                                              "\xEE\x80\x80",
                                              "\xEF\xBF\xBF",
                                              "\xF0\x90\x80\x80",
                                              "\xF0\xBF\xBF\xBF",
                                              "\xF1\x80\x80\x80",
                                              "\xF3\xBF\xBF\xBF",
                                              "\xF4\x80\x80\x80",
                                              "\xF4\x8F\xBF\xBF"};

/// One or more of every class of malformed text, none of whose bytes is part of a well-formed sequence.
const std::vector<std::string> MALFORMED = {
    "\x80",                  // a continuation byte alone
    "\xBF\x80\xBF",          // several
    "\xC0\x80",              // overlong: NUL in two bytes
    "\xC1\xBF",              // overlong: ASCII in two bytes
    "\xE0\x80\x80",          // overlong in three
    "\xE0\x9F\xBF",          // the last overlong in three
    "\xF0\x80\x80\x80",      // overlong in four
    "\xF0\x8F\xBF\xBF",      // the last overlong in four
    "\xED\xA0\x80",          // the first surrogate
    "\xED\xBF\xBF",          // the last surrogate
    "\xF4\x90\x80\x80",      // the first above U+10FFFF
    "\xF5\x80\x80\x80",      // first bytes that no sequence has
    "\xF8\x88\x80\x80\x80",  // five bytes
    "\xFC\x84\x80\x80\x80\x80",
    "\xFE",
    "\xFF",
    "\xC2",          // cut off after one of two
    "\xE2\x82",      // after two of three
    "\xF0\x9F\x98",  // after three of four
    "\xC2"
    "A",  // continued by ASCII
    "\xE2\x82"
    "A",
    "\xF0\x9F\x98"
    "A",
    "\xE2"
    "A\x82",
};

TEST(Utf8String, PassesWellFormedTextUnchanged) {
    for (const std::string& sequence : WELL_FORMED) {
        EXPECT_EQ(encoded(sequence), sequence);
        EXPECT_EQ(decoded("a" + sequence + "z"), "a" + sequence + "z");
    }
}

TEST(Utf8String, TakesEveryMalformedByteAsLatin1) {
    for (const std::string& sequence : MALFORMED) {
        EXPECT_EQ(encoded(sequence), bytewise(sequence));
        EXPECT_EQ(decoded("a" + sequence + "z"), "a" + bytewise(sequence) + "z");
    }
}

TEST(Utf8String, TakesEveryByteAbove127AloneAsLatin1) {
    for (unsigned byte = 0x80; byte <= 0xFF; ++byte) {
        EXPECT_EQ(decoded(std::string(1, static_cast<char>(byte))), latin1(byte)) << byte;
    }
}

TEST(Utf8String, KeepsWellFormedSequencesBesideMalformedBytes) {
    EXPECT_EQ(decoded("\xC3\xC3\xA4\xA4"), latin1(0xC3) + "\xC3\xA4" + latin1(0xA4));
    EXPECT_EQ(decoded("\xE2\xE2\x82\xAC"), latin1(0xE2) + "\xE2\x82\xAC");
    EXPECT_EQ(decoded("\xF0\x9F\xC3\xA4"), latin1(0xF0) + latin1(0x9F) + "\xC3\xA4");
}

TEST(Utf8String, ChangesNothingTheSecondTime) {
    std::mt19937 random(7);
    for (int i = 0; i < 2000; ++i) {
        std::string text(random() % 12, ' ');
        for (char& c : text) c = static_cast<char>(random() % 256);
        const std::string once = decoded(text);
        EXPECT_EQ(decoded(once), once);
        EXPECT_GE(once.size(), text.size());
    }
}

TEST(Utf8String, EncodesEveryLineEndAndNulAsABlank) {
    EXPECT_EQ(encoded(std::string("a\r\nb\nc\rd\0e", 10)), "a  b c d e");
    EXPECT_EQ(encoded("x\r\nInjected: 1"), "x  Injected: 1");
    EXPECT_EQ(encoded("\r\n"), "  ");
}

TEST(Utf8String, DecodesLineEndsAndNulAsTheyAre) {
    const std::string text("a\r\nb\0c", 6);
    EXPECT_EQ(decoded(text), text);
}

TEST(Utf8String, KeepsOtherControlCharacters) {
    const std::string text = "\x01\t\v\f\x1B\x7F";
    EXPECT_EQ(encoded(text), text);
}

TEST(Utf8String, TurnsEmptyTextIntoEmptyText) {
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(decoded(""), "");
}

TEST(Utf8String, MayWriteItsResultOverItsArgument) {
    std::string text = "\xE4\n";
    Utf8String::encode(text, text);
    EXPECT_EQ(text, "\xC3\xA4 ");
    text = "\xE4";
    Utf8String::decode(text, text);
    EXPECT_EQ(text, "\xC3\xA4");
}

/// One byte of each value, at each place of texts of each length up to two words of the processor and a little.
template <typename Check>
void forEachByteAnywhere(const Check& check) {
    for (std::size_t length = 1; length <= 18; ++length) {
        for (std::size_t place = 0; place < length; ++place) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string text(length, 'x');
                text[place] = static_cast<char>(byte);
                check(text, byte);
            }
        }
    }
}

TEST(Utf8String, KnowsTextOfAsciiByEachOfItsBytes) {
    EXPECT_TRUE(Utf8String::isAscii(""));
    forEachByteAnywhere([](const std::string& text, int byte) {
        EXPECT_EQ(Utf8String::isAscii(text), byte < 128) << text.size() << " " << byte;
    });
}

TEST(Utf8String, CallsNoTextPlainThatEncodingChanges) {
    EXPECT_TRUE(Utf8String::isPlain(""));
    forEachByteAnywhere([](const std::string& text, int byte) {
        EXPECT_EQ(Utf8String::isPlain(text), byte >= ' ' && byte < 128) << text.size() << " " << byte;
        if (Utf8String::isPlain(text)) {
            EXPECT_EQ(encoded(text), text);
        }
    });
}

TEST(Utf8String, EncodesEachByteAnywhereInATextAsItDoesAlone) {
    forEachByteAnywhere([](const std::string& text, int byte) {
        const bool endsLine = byte == 0 || byte == '\r' || byte == '\n';
        const std::string alone = endsLine ? " " : decoded(std::string(1, static_cast<char>(byte)));
        const std::size_t place = text.find(static_cast<char>(byte));
        if (byte == 'x') return;
        EXPECT_EQ(encoded(text), std::string(place, 'x') + alone + std::string(text.size() - place - 1, 'x'));
    });
}

}  // namespace
