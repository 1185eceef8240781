#include "common/StringUtils.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Quovane::Soa::Internal::Common::StringUtils;

constexpr int INT_MAXIMUM = std::numeric_limits<int>::max();
constexpr int INT_MINIMUM = std::numeric_limits<int>::min();

/// The value of a hexadecimal text, or "too large".
std::string hexadecimal(std::string_view text) {
    std::uint32_t value = 1;
    return StringUtils::scanHexadecimal(text, value) ? std::to_string(value) : "too large";
}

/// What scanning one integer leaves: "value|rest", or "none|rest".
std::string scanned(std::string_view text) {
    int value = 0;
    const bool found = StringUtils::scanInteger(text, value);
    return (found ? std::to_string(value) : "none") + "|" + std::string(text);
}

TEST(StringUtilsTrim, RemovesEachKindOfWhiteSpaceFromBothEnds) {
    for (const char c : std::string(" \t\r\n\v\f")) {
        const std::string around(2, c);
        EXPECT_EQ(StringUtils::trim(around + "a b" + around), "a b") << static_cast<int>(c);
    }
}

TEST(StringUtilsTrim, RemovesMixedWhiteSpaceAndKeepsWhatStandsInside) {
    EXPECT_EQ(StringUtils::trim(" \t\r\n\v\fone \t two\f\v\n\r\t "), "one \t two");
}

TEST(StringUtilsTrim, LeavesNothingOfWhiteSpaceAlone) {
    EXPECT_EQ(StringUtils::trim(""), "");
    EXPECT_EQ(StringUtils::trim(" \t\r\n\v\f"), "");
}

TEST(StringUtilsTrim, TakesNoOtherByteForWhiteSpace) {
    for (int byte = 0; byte < 256; ++byte) {
        if (byte == ' ' || (byte >= '\t' && byte <= '\r')) continue;
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(StringUtils::trim(text), text) << byte;
    }
}

TEST(StringUtilsTrim, RemovesOnlyTheCharactersOfTheGivenSet) {
    EXPECT_EQ(StringUtils::trim(" \tx\r\t ", " \t"), "x\r");
    EXPECT_EQ(StringUtils::trim("--x-y--", "-"), "x-y");
    EXPECT_EQ(StringUtils::trim("----", "-"), "");
}

TEST(StringUtilsToInteger, ReadsASignAndDigitsAfterWhiteSpace) {
    EXPECT_EQ(StringUtils::toInteger("12"), 12);
    EXPECT_EQ(StringUtils::toInteger("-12"), -12);
    EXPECT_EQ(StringUtils::toInteger("+12"), 12);
    EXPECT_EQ(StringUtils::toInteger(" \t\r\n\v\f007"), 7);
}

TEST(StringUtilsToInteger, StopsAtTheFirstCharacterThatIsNoDigit) {
    EXPECT_EQ(StringUtils::toInteger("12abc"), 12);
    EXPECT_EQ(StringUtils::toInteger("1 2"), 1);
    EXPECT_EQ(StringUtils::toInteger("0x10"), 0);
    EXPECT_EQ(StringUtils::toInteger("3.9"), 3);
}

TEST(StringUtilsToInteger, IsZeroWithoutDigits) {
    for (const char* text : {"", " ", "abc", "-", "+", "--1", "+-1", "- 1", "\xC2\xB2"}) {
        EXPECT_EQ(StringUtils::toInteger(text), 0) << text;
    }
}

TEST(StringUtilsToInteger, ReadsTheLimitsOfIntExactly) {
    EXPECT_EQ(StringUtils::toInteger("2147483647"), INT_MAXIMUM);
    EXPECT_EQ(StringUtils::toInteger("2147483646"), INT_MAXIMUM - 1);
    EXPECT_EQ(StringUtils::toInteger("-2147483648"), INT_MINIMUM);
    EXPECT_EQ(StringUtils::toInteger("-2147483647"), INT_MINIMUM + 1);
}

TEST(StringUtilsToInteger, SaturatesAtTheLimitsOfInt) {
    for (const char* digits : {"2147483649", "4294967296", "9223372036854775808", "18446744073709551616",
                               "99999999999999999999999999999999999999999999"}) {
        EXPECT_EQ(StringUtils::toInteger(digits), INT_MAXIMUM) << digits;
        EXPECT_EQ(StringUtils::toInteger(std::string("-") + digits), INT_MINIMUM) << digits;
    }
    EXPECT_EQ(StringUtils::toInteger("2147483648"), INT_MAXIMUM);
}

TEST(StringUtilsScanInteger, RemovesWhatItRead) {
    EXPECT_EQ(scanned("12.5"), "12|.5");
    EXPECT_EQ(scanned("  -3 . 4"), "-3| . 4");
    EXPECT_EQ(scanned("99999999999x"), "2147483647|x");
}

TEST(StringUtilsScanInteger, LeavesTheTextAloneWithoutDigits) {
    EXPECT_EQ(scanned(" x"), "none| x");
    EXPECT_EQ(scanned("-"), "none|-");
    EXPECT_EQ(scanned(""), "none|");
}

TEST(StringUtilsScanInteger, LeavesTheValueAloneWithoutDigits) {
    int value = 77;
    std::string_view text = "x";
    EXPECT_FALSE(StringUtils::scanInteger(text, value));
    EXPECT_EQ(value, 77);
}

TEST(StringUtilsScanHexadecimal, ReadsDigitsOfEitherCase) {
    EXPECT_EQ(hexadecimal("5"), "5");
    EXPECT_EQ(hexadecimal("1a"), "26");
    EXPECT_EQ(hexadecimal("1A"), "26");
    EXPECT_EQ(hexadecimal("0123456"), std::to_string(0x123456));
    EXPECT_EQ(hexadecimal("789abcd"), std::to_string(0x789abcd));
    EXPECT_EQ(hexadecimal("EF"), "239");
}

TEST(StringUtilsScanHexadecimal, IgnoresWhatFollowsTheDigits) {
    EXPECT_EQ(hexadecimal("10\r"), "16");
    EXPECT_EQ(hexadecimal("10;name=value"), "16");
    EXPECT_EQ(hexadecimal("10 20"), "16");
    EXPECT_EQ(hexadecimal("1g"), "1");
}

TEST(StringUtilsScanHexadecimal, SkipsWhiteSpaceAndThePrefix) {
    EXPECT_EQ(hexadecimal(" \t1f"), "31");
    EXPECT_EQ(hexadecimal("0x1f"), "31");
    EXPECT_EQ(hexadecimal("0X1F"), "31");
    EXPECT_EQ(hexadecimal("+0x1f"), "31");
    EXPECT_EQ(hexadecimal("0x5"), "5");
    EXPECT_EQ(hexadecimal("0x05"), "5");
    EXPECT_EQ(hexadecimal("1x5"), "1");
}

TEST(StringUtilsScanHexadecimal, IsZeroWithoutDigits) {
    for (const char* text : {"", "\r", "xyz", "g", "-", "+", "0x", "0xg", "x1", "00x5"}) {
        EXPECT_EQ(hexadecimal(text), "0") << text;
    }
}

TEST(StringUtilsScanHexadecimal, WrapsANegativeNumberAround) {
    EXPECT_EQ(hexadecimal("-1"), "4294967295");
    EXPECT_EQ(hexadecimal("-ffffffff"), "1");
    EXPECT_EQ(hexadecimal("-0"), "0");
}

TEST(StringUtilsScanHexadecimal, RefusesWhatDoesNotFitIn32Bits) {
    EXPECT_EQ(hexadecimal("ffffffff"), "4294967295");
    EXPECT_EQ(hexadecimal("00000000ffffffff"), "4294967295");
    EXPECT_EQ(hexadecimal("100000000"), "too large");
    EXPECT_EQ(hexadecimal("-100000000"), "too large");
    EXPECT_EQ(hexadecimal("10000000000000001"), "too large");
}

}  // namespace
