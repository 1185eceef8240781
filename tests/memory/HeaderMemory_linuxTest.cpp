#include "common/Utf8String.h"
#include "message/HeaderBlock.h"
#include "support/OutOfMemory.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::HeaderBlock;
using Quovane::Soa::Common::Xml::Utf8String;

/// Headers of one name that are apart from each other, with values that need memory.
std::string manyHeaders() {
    std::string text;
    for (int i = 0; i < 40; ++i) text += "Name" + std::to_string(i % 5) + ": " + std::string(200, 'v') + "\r\n";
    return text + "\r\n";
}

/// Reads headers of which the nth allocation fails. Then each name is there once, in order, or nothing is. Returns
/// whether there was such an allocation.
bool readsOrHasNothingTwice(long nth, OutOfMemory::Extent extent) {
    HeaderBlock block;
    std::istringstream in(manyHeaders());
    in.exceptions(std::ios_base::badbit);
    bool failed = false;
    const std::string thrown = thrownBy([&] {
        const OutOfMemory memory(nth, extent);
        failed = true;
        block.read(in, Utf8String());
        failed = memory.hasFailed();
    });
    // A sort without room of its own is a slow one, and no failure.
    EXPECT_TRUE(thrown == "nothing" || (failed && thrown == "std::exception: std::bad_alloc")) << nth << thrown;
    const std::vector<std::string> names = block.getHeaderNames();
    const std::set<std::string> sorted(names.begin(), names.end());
    EXPECT_EQ(names, std::vector<std::string>(sorted.begin(), sorted.end())) << nth;
    for (const std::string& name : names) EXPECT_FALSE(block.getHeaders(name).empty()) << nth << " " << name;
    return failed;
}

TEST(HeadersWithoutMemory, AreThereOnceEachOrNotAtAll) {
    for (const auto extent : {OutOfMemory::ONCE, OutOfMemory::FROM_THEN_ON}) {
        long nth = 1;
        while (readsOrHasNothingTwice(nth, extent)) ++nth;
        EXPECT_GT(nth, 3);
    }
}

}  // namespace
}  // namespace qvtp_test
