#include <qvtp/message/Version.h>

#include "common/WireSyntax.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using Quovane::Qvtp::Version;

std::string parsed(const std::string& label) {
    const Version version(label);
    return std::to_string(version.getMajor()) + "." + std::to_string(version.getMinor());
}

TEST(Version, IsTheCurrentOneByDefault) {
    EXPECT_EQ(Version().getMajor(), 1);
    EXPECT_EQ(Version().getMinor(), 0);
    EXPECT_EQ(Version(), Version(1, 0));
    EXPECT_EQ(Version(), Version::CURRENT_VERSION);
    EXPECT_EQ(Version("QVTP/1.0"), Version::CURRENT_VERSION);
}

TEST(Version, KeepsAnyTwoNumbers) {
    EXPECT_EQ(Version(-3, 7).getMajor(), -3);
    EXPECT_EQ(Version(-3, 7).getMinor(), 7);
    EXPECT_EQ(Version(0, std::numeric_limits<int>::min()).getMinor(), std::numeric_limits<int>::min());
}

TEST(Version, IsAValueOfTwoNumbers) {
    const Version original(2, 5);
    const Version copy(original);
    EXPECT_EQ(copy, Version(2, 5));
    Version assigned;
    assigned = original;
    EXPECT_EQ(assigned, Version(2, 5));
    EXPECT_EQ(sizeof(Version), 8U);
}

TEST(VersionLabel, IsReadWithWhiteSpaceAroundIt) {
    EXPECT_EQ(parsed("QVTP/1.1"), "1.1");
    EXPECT_EQ(parsed("  QVTP/1.1\r\n"), "1.1");
    EXPECT_EQ(parsed("\t\v\fQVTP/12.34 "), "12.34");
}

TEST(VersionLabel, LeavesTheCurrentVersionWithoutThePrefix) {
    for (const char* label : {"XYZ/1.1", "QVTP/", "QVTP", "", " ", "qvtp/2.0", "Qvtp/2.0", "QVTP2.0", "QVTP-2.0",
                              "/2.0", "2.0", "QVTP /2.0", "HQVTP/2.0", "QVTP/ \r\n"}) {
        EXPECT_EQ(parsed(label), "1.0") << label;
    }
}

TEST(VersionLabel, KeepsWhatTheScanDoesNotReach) {
    EXPECT_EQ(parsed("QVTP/2"), "2.0");
    EXPECT_EQ(parsed("QVTP/2."), "2.0");
    EXPECT_EQ(parsed("QVTP/2.x"), "2.0");
    EXPECT_EQ(parsed("QVTP/2,5"), "2.0");
    EXPECT_EQ(parsed("QVTP/x.y"), "1.0");
    EXPECT_EQ(parsed("QVTP/.5"), "1.0");
    EXPECT_EQ(parsed("QVTP/x.5"), "1.0");
}

TEST(VersionLabel, IgnoresWhatFollowsTheNumbers) {
    EXPECT_EQ(parsed("QVTP/2.5xyz"), "2.5");
    EXPECT_EQ(parsed("QVTP/2.5.7"), "2.5");
    EXPECT_EQ(parsed("QVTP/2.5 QVTP/3.0"), "2.5");
}

TEST(VersionLabel, AllowsBlanksBeforeANumberButNotBeforeThePoint) {
    EXPECT_EQ(parsed("QVTP/ 3 . 4"), "3.0");
    EXPECT_EQ(parsed("QVTP/ 3.4"), "3.4");
    EXPECT_EQ(parsed("QVTP/3. \t4"), "3.4");
}

TEST(VersionLabel, ReadsSigns) {
    EXPECT_EQ(parsed("QVTP/-1.7"), "-1.7");
    EXPECT_EQ(parsed("QVTP/+2.-3"), "2.-3");
    EXPECT_EQ(parsed("QVTP/--1.7"), "1.0");
}

TEST(VersionLabel, SaturatesAtTheLimitsOfInt) {
    EXPECT_EQ(parsed("QVTP/2147483647.-2147483648"), "2147483647.-2147483648");
    EXPECT_EQ(parsed("QVTP/99999999999.-99999999999"), "2147483647.-2147483648");
}

TEST(VersionOrder, ComparesTheMajorsBeforeTheMinorsAsNumbers) {
    const std::vector<Version> ascending = {{-2, 9}, {-1, -5}, {-1, 3}, {0, 0}, {1, -1}, {1, 0},
                                            {1, 9},  {1, 10},  {1, 99}, {2, 0}, {10, 0}};
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            EXPECT_EQ(ascending[i] < ascending[j], i < j);
            EXPECT_EQ(ascending[i] <= ascending[j], i <= j);
            EXPECT_EQ(ascending[i] > ascending[j], i > j);
            EXPECT_EQ(ascending[i] >= ascending[j], i >= j);
            EXPECT_EQ(ascending[i] == ascending[j], i == j);
            EXPECT_EQ(ascending[i] != ascending[j], i != j);
        }
    }
}

TEST(VersionText, IsTheLabelWithPlainDecimalNumbers) {
    EXPECT_EQ(Version().toString(), "QVTP/1.0");
    EXPECT_EQ(Version(-1, 5).toString(), "QVTP/-1.5");
    EXPECT_EQ(Version(12, -34).toString(), "QVTP/12.-34");
    EXPECT_EQ(Version(1234567, 0).toString(), "QVTP/1234567.0");
}

TEST(VersionText, IsWhatStartLinesSay) {
    EXPECT_EQ(Version::CURRENT_VERSION.toString(), Quovane::Internal::Qvtp::WireSyntax::VERSION);
}

TEST(VersionText, IsReadBackAsTheSameVersion) {
    for (const Version& version :
         {Version(1, 0), Version(0, 0), Version(-1, 5), Version(2, -7), Version(1000000, 99)}) {
        EXPECT_EQ(Version(version.toString()), version);
    }
}

/// Built before the objects of all other files.
[[gnu::init_priority(101)]] const Version copiedFirst = Version::CURRENT_VERSION;

TEST(VersionConstant, IsThereBeforeOtherStaticObjects) {
    EXPECT_EQ(copiedFirst.getMajor(), 1);
    EXPECT_EQ(copiedFirst.getMinor(), 0);
}

}  // namespace
