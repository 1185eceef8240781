#include "common/Text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

namespace {

using Quovane::Internal::Qvtp::text;

/// Groups digits and has another decimal point, as many locales do.
class Grouping : public std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

class TextUnderAForeignLocale : public ::testing::Test {
  protected:
    TextUnderAForeignLocale() : former_(std::locale::global(std::locale(std::locale::classic(), new Grouping))) {}
    ~TextUnderAForeignLocale() override { std::locale::global(former_); }

  private:
    std::locale former_;
};

TEST(Text, StreamsItsArgumentsOneAfterAnother) {
    EXPECT_EQ(text("a", std::string("b"), 'c', 4, std::int64_t{-5}), "abc4-5");
}

TEST(Text, FormatsNumbersByDefaultWithSixSignificantDigits) {
    EXPECT_EQ(text(1.5F), "1.5");
    EXPECT_EQ(text(0.0123F), "0.0123");
    EXPECT_EQ(text(1234567.0F), "1.23457e+06");
}

TEST(Text, WritesNumbersAndAddressesAsAStreamDoes) {
    const int target = 0;
    const auto streamed = [](const auto& value) {
        std::ostringstream stream;
        stream.imbue(std::locale::classic());
        stream << value;
        return stream.str();
    };
    for (const float value : {0.0F, -0.0F, 1.0F, 1e-5F, 123456.0F, 1234565.0F, 3.4e38F, 1e-45F, 0.1F, 1023.9995F}) {
        EXPECT_EQ(text(value), streamed(value));
    }
    for (const double value : {0.1, 1e300, -2.5, 100000.0, 999999.5, 1.0 / 3}) EXPECT_EQ(text(value), streamed(value));
    EXPECT_EQ(text(std::numeric_limits<float>::infinity()), streamed(std::numeric_limits<float>::infinity()));
    EXPECT_EQ(text(std::numeric_limits<std::int64_t>::min()), streamed(std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ(text(std::numeric_limits<std::uint64_t>::max()), streamed(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ(text(static_cast<const void*>(&target)), streamed(static_cast<const void*>(&target)));
    EXPECT_EQ(text(static_cast<const void*>(nullptr)), streamed(static_cast<const void*>(nullptr)));
}

TEST_F(TextUnderAForeignLocale, StillWritesPlainNumbers) {
    std::ostringstream foreign;
    foreign << 1234567;
    ASSERT_EQ(foreign.str(), "1.234.567");
    EXPECT_EQ(text(1234567, " ", 1.5), "1234567 1.5");
}

}  // namespace
