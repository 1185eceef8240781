#include "common/StringStream.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Quovane::Soa::Common::Xml::StringStream;

std::string contents(const StringStream& stream) {
    std::string result = "left over";
    stream.str(result);
    return result;
}

TEST(StringStream, IsEmptyAtFirst) {
    EXPECT_EQ(contents(StringStream()), "");
}

TEST(StringStream, HoldsEverythingWrittenInOrder) {
    StringStream stream;
    stream.write("one,", 4);
    stream.write("two,ignored", 4);
    stream.write("", 0);
    EXPECT_EQ(contents(stream), "one,two,");
}

TEST(StringStream, HoldsZeroBytes) {
    StringStream stream;
    stream.write("a\0b", 3);
    EXPECT_EQ(contents(stream), std::string("a\0b", 3));
}

TEST(StringStream, GrowsOnAfterItsContentsWereTaken) {
    StringStream stream;
    stream.write("one", 3);
    EXPECT_EQ(contents(stream), "one");
    stream.write("two", 3);
    EXPECT_EQ(contents(stream), "onetwo");
}

}  // namespace
