#include "common/Text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <locale>
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

TEST_F(TextUnderAForeignLocale, StillWritesPlainNumbers) {
    std::ostringstream foreign;
    foreign << 1234567;
    ASSERT_EQ(foreign.str(), "1.234.567");
    EXPECT_EQ(text(1234567, " ", 1.5), "1234567 1.5");
}

}  // namespace
