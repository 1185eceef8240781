#include "message/StartLine.h"

#include <gtest/gtest.h>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::StartLine;

TEST(StartLine, HasThreeWordsAndMore) {
    const StartLine line("QVTP/1.0 404 Not Found");
    EXPECT_TRUE(line.hasBlank());
    EXPECT_EQ(line.first(), "QVTP/1.0");
    EXPECT_EQ(line.second(), "404");
    EXPECT_EQ(line.rest(), "Not Found");
    EXPECT_EQ(line.last(), "Found");
}

TEST(StartLine, OfTwoWordsHasNoRest) {
    const StartLine line("POST /x");
    EXPECT_EQ(line.first(), "POST");
    EXPECT_EQ(line.second(), "/x");
    EXPECT_EQ(line.rest(), "");
    EXPECT_EQ(line.last(), "/x");
}

TEST(StartLine, OfOneWordIsItsFirstAndItsLast) {
    const StartLine line("POST");
    EXPECT_FALSE(line.hasBlank());
    EXPECT_EQ(line.first(), "POST");
    EXPECT_EQ(line.second(), "");
    EXPECT_EQ(line.rest(), "");
    EXPECT_EQ(line.last(), "POST");
}

TEST(StartLine, KeepsEmptyWordsBetweenBlanks) {
    const StartLine line("POST  QVTP/1.0 ");
    EXPECT_EQ(line.second(), "");
    EXPECT_EQ(line.rest(), "QVTP/1.0 ");
    EXPECT_EQ(line.last(), "");
}

}  // namespace
}  // namespace qvtp_test
