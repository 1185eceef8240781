#include "message/QvtpHeader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace {

using Quovane::Internal::Qvtp::QvtpHeader;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> split(const std::string& text) {
    return QvtpHeader("X", text).getValues();
}

TEST(QvtpHeader, HasNeitherNameNorValuesAtFirst) {
    const QvtpHeader header;
    EXPECT_EQ(header.getName(), "");
    EXPECT_EQ(header.getValue(), "");
    EXPECT_THAT(header.getValues(), IsEmpty());
}

TEST(QvtpHeader, TrimsItsNameAndSplitsItsValueAtConstruction) {
    const QvtpHeader header(" \t\r\n\v\fX-Ids\f\v\n\r\t ", "a, b");
    EXPECT_EQ(header.getName(), "X-Ids");
    EXPECT_EQ(header.getValue(), "a");
    EXPECT_THAT(header.getValues(), ElementsAre("a", "b"));
}

TEST(QvtpHeader, IsCopiedWithNameAndValues) {
    const QvtpHeader header("X", "a,b");
    QvtpHeader copy(header);
    EXPECT_EQ(copy.getName(), "X");
    copy.setValue("c");
    EXPECT_THAT(copy.getValues(), ElementsAre("c"));
    EXPECT_THAT(header.getValues(), ElementsAre("a", "b"));
    copy = header;
    EXPECT_THAT(copy.getValues(), ElementsAre("a", "b"));
}

TEST(QvtpHeader, HasItsDestructorAsAVirtualOperation) {
    EXPECT_TRUE(std::has_virtual_destructor_v<QvtpHeader>);
}

TEST(QvtpHeaderName, IsStoredAsItIsWithoutWhiteSpaceAtAnEnd) {
    QvtpHeader header;
    for (const char* name : {"Content-Length", "a b", "x", "", "\vX\f"}) {
        header.setName(name);
        EXPECT_EQ(header.getName(), name);
    }
}

TEST(QvtpHeaderName, IsTrimmedWithWhiteSpaceAtEitherEnd) {
    QvtpHeader header;
    for (const char* name : {" X", "X ", "\tX", "X\r", "\nX\n", " \t\r\n X \r\n", " \vX"}) {
        header.setName(name);
        EXPECT_EQ(header.getName(), "X") << name;
    }
    header.setName(" \t ");
    EXPECT_EQ(header.getName(), "");
}

TEST(QvtpHeaderValues, AreThePiecesBetweenCommasWithoutEmptyOnes) {
    EXPECT_THAT(split("a, b,,c ,"), ElementsAre("a", "b", "c"));
    EXPECT_THAT(split("a"), ElementsAre("a"));
    EXPECT_THAT(split(",,,a,,,"), ElementsAre("a"));
    EXPECT_THAT(split(" , \t,a, \r\n ,b, "), ElementsAre("a", "b"));
}

TEST(QvtpHeaderValues, AreNoneForEmptyOrBlankText) {
    for (const char* text : {"", " ", " \t\r\n", ",", ", ,\t,"}) EXPECT_THAT(split(text), IsEmpty()) << text;
}

TEST(QvtpHeaderValues, LoseTheSeparatorsAtTheirEndsAndNoOthers) {
    EXPECT_THAT(split("\t a b\r\n, \rc\td\n"), ElementsAre("a b", "c\td"));
    EXPECT_THAT(split("\va\f"), ElementsAre("\va\f"));
}

TEST(QvtpHeaderValues, AreCutAtCommasEvenInsideQuotes) {
    EXPECT_THAT(split("\"a,b\""), ElementsAre("\"a", "b\""));
    EXPECT_THAT(split("a;b=c"), ElementsAre("a;b=c"));
}

TEST(QvtpHeaderValues, AreAppendedWhenAdded) {
    QvtpHeader header("X", "b");
    header.addValues("a, b");
    header.addValues("");
    EXPECT_THAT(header.getValues(), ElementsAre("b", "a", "b"));
}

TEST(QvtpHeaderValues, AreReplacedWhenSet) {
    QvtpHeader header("X", "a,b");
    header.setValue("c,d");
    EXPECT_THAT(header.getValues(), ElementsAre("c", "d"));
    header.setValue(" ");
    EXPECT_THAT(header.getValues(), IsEmpty());
    EXPECT_EQ(header.getValue(), "");
}

TEST(QvtpHeaderValues, AreHandedOutAsACopy) {
    const QvtpHeader header("X", "a");
    std::vector<std::string> values = header.getValues();
    values.emplace_back("b");
    EXPECT_THAT(header.getValues(), ElementsAre("a"));
}

TEST(QvtpHeader, HasNoValuesWhereItIsMadeOfANameAlone) {
    const QvtpHeader header(std::string_view("X"));
    EXPECT_EQ(header.getName(), "X");
    EXPECT_TRUE(header.getValues().empty());
}

}  // namespace
