#include "config/ParserMemory.h"

#include <gtest/gtest.h>

#include <new>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::ParserMemory;

void own() {}

/// Leaves the process the handler that it had.
class ReserveOfMemory : public ::testing::Test {
  protected:
    ~ReserveOfMemory() override { std::set_new_handler(before); }

    const std::new_handler before = std::get_new_handler();
};

TEST_F(ReserveOfMemory, HasTheHandlerOfAllocationsForItsScopeOnly) {
    std::set_new_handler(own);
    {
        const ParserMemory memory;
        EXPECT_NE(std::get_new_handler(), own);
    }
    EXPECT_EQ(std::get_new_handler(), own);
}

TEST_F(ReserveOfMemory, LeavesAHandlerThatWasSetMeanwhile) {
    {
        const ParserMemory memory;
        std::set_new_handler(own);
    }
    EXPECT_EQ(std::get_new_handler(), own);
}

TEST_F(ReserveOfMemory, IsGivenUpOnceAndThenTheHandlerBeforeIsAsked) {
    static int asked = 0;
    std::set_new_handler([] { ++asked; });
    const ParserMemory memory;
    const std::new_handler handler = std::get_new_handler();
    handler();
    EXPECT_EQ(asked, 0);
    handler();
    EXPECT_EQ(asked, 1);
}

TEST_F(ReserveOfMemory, EndsInTheLanguagesOwnExceptionWithoutAHandlerBefore) {
    std::set_new_handler(nullptr);
    const ParserMemory memory;
    const std::new_handler handler = std::get_new_handler();
    handler();
    EXPECT_THROW(handler(), std::bad_alloc);
}

}  // namespace
}  // namespace qvtp_test
