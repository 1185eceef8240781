#include "common/BodyBlock.h"

#include "support/OutOfMemory.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::BodyBlock;

constexpr std::size_t KIB = 1024;
constexpr std::size_t SMALL = 72;  // in the object itself
constexpr std::size_t ROOM_BEFORE = 256;
constexpr std::size_t SMALLEST_KEPT = 128 * KIB;
constexpr std::size_t MOST_KEPT = 4096 * KIB;

/// Whether a block of this size takes new memory.
bool isNew(std::size_t size) {
    const long before = OutOfMemory::liveBlocks();
    const BodyBlock block(size);
    return OutOfMemory::liveBlocks() > before;
}

/// How many of these many blocks of one size, made and dropped together, are kept.
int keptOf(int count, std::size_t size) {
    std::vector<BodyBlock> blocks;
    blocks.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) blocks.emplace_back(size);
    blocks.clear();
    const long before = OutOfMemory::liveBlocks();
    for (int i = 0; i < count; ++i) blocks.emplace_back(size);
    return count - static_cast<int>(OutOfMemory::liveBlocks() - before);
}

/// Nothing is kept at its beginning: what other tests have left is in use for the length of the test.
class KeptBlock : public ::testing::Test {
  protected:
    void SetUp() override {
        for (std::size_t size = SMALLEST_KEPT; size <= MOST_KEPT; size *= 2) {
            for (;;) {
                const long before = OutOfMemory::liveBlocks();
                BodyBlock block(size);
                const bool wasKept = OutOfMemory::liveBlocks() == before;
                taken_.push_back(std::make_unique<BodyBlock>(std::move(block)));
                if (!wasKept) break;
            }
        }
    }

  private:
    std::vector<std::unique_ptr<BodyBlock>> taken_;
};

TEST_F(KeptBlock, IsGivenToTheNextBodyOfItsSize) {
    const char* memory = nullptr;
    {
        const BodyBlock block(SMALLEST_KEPT);
        memory = block.get();
    }
    EXPECT_FALSE(isNew(SMALLEST_KEPT));
    EXPECT_EQ(BodyBlock(SMALLEST_KEPT).get(), memory);
    const BodyBlock used(SMALLEST_KEPT);
    EXPECT_TRUE(isNew(SMALLEST_KEPT)) << "a block that is in use was given away";
}

TEST_F(KeptBlock, IsGivenToBodiesOfAtLeastHalfItsSize) {
    { const BodyBlock block(4 * SMALLEST_KEPT); }
    EXPECT_TRUE(isNew(2 * SMALLEST_KEPT - 1));
    EXPECT_FALSE(isNew(2 * SMALLEST_KEPT));
    EXPECT_FALSE(isNew(4 * SMALLEST_KEPT));
    EXPECT_TRUE(isNew(4 * SMALLEST_KEPT + 1));
}

TEST_F(KeptBlock, KeepsItsWholeSizeThroughASmallerBody) {
    { const BodyBlock block(4 * SMALLEST_KEPT); }
    { const BodyBlock smaller(2 * SMALLEST_KEPT); }
    EXPECT_FALSE(isNew(4 * SMALLEST_KEPT));
    BodyBlock again(4 * SMALLEST_KEPT);
    std::memset(again.get(), 'x', 4 * SMALLEST_KEPT);  // a sanitizer sees whether it is all there
    EXPECT_TRUE(isNew(4 * SMALLEST_KEPT));
}

TEST_F(KeptBlock, IsLarge) {
    { const BodyBlock small(SMALLEST_KEPT - 1); }
    EXPECT_TRUE(isNew(SMALLEST_KEPT - 1));
    EXPECT_EQ(keptOf(1, 1000), 0);
    EXPECT_EQ(keptOf(1, SMALLEST_KEPT), 1);
}

TEST_F(KeptBlock, IsOneOfAtMost4MebibytesInAll) {
    EXPECT_EQ(keptOf(10, 1024 * KIB), 4);
}

TEST_F(KeptBlock, IsNoLargerThan4Mebibytes) {
    EXPECT_EQ(keptOf(2, MOST_KEPT), 1);
}

TEST_F(KeptBlock, IsNotOneBeyondThat) {
    EXPECT_EQ(keptOf(1, MOST_KEPT + 1), 0);
}

TEST_F(KeptBlock, IsOneOfSixteen) {
    EXPECT_EQ(keptOf(20, SMALLEST_KEPT), 16);
}

TEST_F(KeptBlock, IsFreedWhenThereIsNoRoomForIt) {
    const long before = OutOfMemory::liveBlocks();
    keptOf(20, SMALLEST_KEPT);
    EXPECT_EQ(OutOfMemory::liveBlocks() - before, 16);
    keptOf(1, MOST_KEPT);
    EXPECT_EQ(OutOfMemory::liveBlocks() - before, 16);
}

TEST_F(KeptBlock, MovesWithItsOwner) {
    BodyBlock block(SMALLEST_KEPT);
    char* const memory = block.get();
    BodyBlock moved(std::move(block));
    EXPECT_FALSE(block.isThere());  // NOLINT(bugprone-use-after-move): the state of what was moved from
    EXPECT_EQ(moved.get(), memory);
    BodyBlock assigned;
    EXPECT_FALSE(assigned.isThere());
    assigned = std::move(moved);
    EXPECT_EQ(assigned.get(), memory);
    assigned = BodyBlock();
    EXPECT_EQ(BodyBlock(SMALLEST_KEPT).get(), memory);
}

TEST_F(KeptBlock, TakesNoMemoryForASmallBody) {
    EXPECT_FALSE(isNew(0));
    EXPECT_FALSE(isNew(SMALL));
    EXPECT_TRUE(isNew(SMALL + 1));
}

TEST_F(KeptBlock, MovesWhatIsInASmallBody) {
    BodyBlock block(SMALL);
    std::memset(block.get(), 'x', SMALL);
    BodyBlock moved(std::move(block));
    EXPECT_FALSE(block.isThere());  // NOLINT(bugprone-use-after-move): the state of what was moved from
    EXPECT_EQ(std::string(moved.get(), SMALL), std::string(SMALL, 'x'));
    BodyBlock assigned(SMALLEST_KEPT);
    const char* const large = assigned.get();
    assigned = std::move(moved);
    EXPECT_FALSE(moved.isThere());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(std::string(assigned.get(), SMALL), std::string(SMALL, 'x'));
    EXPECT_EQ(BodyBlock(SMALLEST_KEPT).get(), large);
    assigned = BodyBlock(SMALLEST_KEPT);
    EXPECT_EQ(assigned.get(), large);
}

TEST_F(KeptBlock, StaysWhatItIsWhenItIsMovedOntoItself) {
    for (const std::size_t size : {SMALL, SMALLEST_KEPT}) {
        BodyBlock block(size);
        std::memset(block.get(), 'x', size);
        BodyBlock& same = block;
        block = std::move(same);
        ASSERT_TRUE(block.isThere());
        EXPECT_EQ(std::string(block.get(), size), std::string(size, 'x'));
    }
}

TEST_F(KeptBlock, IsThereAlsoForNoByte) {
    EXPECT_TRUE(BodyBlock(0).isThere());
    EXPECT_FALSE(BodyBlock().isThere());
}

TEST_F(KeptBlock, TakesAHeadRightBeforeTheBody) {
    for (const std::size_t size : {SMALL + 1, SMALLEST_KEPT}) {
        BodyBlock block(size);
        std::memset(block.get(), 'x', size);
        for (const std::size_t length : {ROOM_BEFORE, std::size_t{1}, std::size_t{0}}) {
            const std::string head(length, 'h');
            const char* const before = block.putBefore(head);
            ASSERT_EQ(before, block.get() - length);
            EXPECT_EQ(std::string(before, length + size), head + std::string(size, 'x'));
        }
        BodyBlock moved(std::move(block));
        EXPECT_EQ(moved.putBefore("head"), moved.get() - 4);
    }
    BodyBlock again(SMALLEST_KEPT);  // the same memory
    EXPECT_EQ(again.putBefore(std::string(ROOM_BEFORE, 'h')), again.get() - ROOM_BEFORE);
}

TEST_F(KeptBlock, TakesNoHeadWhereItHasNoRoom) {
    BodyBlock block(SMALL + 1);
    EXPECT_EQ(block.putBefore(std::string(ROOM_BEFORE + 1, 'h')), nullptr);
    BodyBlock small(SMALL);
    EXPECT_EQ(small.putBefore("h"), nullptr);
    EXPECT_EQ(BodyBlock().putBefore("h"), nullptr);
}

TEST_F(KeptBlock, NeedsNoMemoryToBeTakenAgain) {
    { const BodyBlock block(SMALLEST_KEPT); }
    const auto takeWithoutMemory = [] {
        const OutOfMemory memory;
        const BodyBlock block(SMALLEST_KEPT);
    };
    EXPECT_EQ(thrownBy(takeWithoutMemory), "nothing");
    const BodyBlock used(SMALLEST_KEPT);
    EXPECT_EQ(thrownBy(takeWithoutMemory), "std::exception: std::bad_alloc");
}

TEST_F(KeptBlock, BelongsToOneOfManyThreads) {
    constexpr int THREADS = 4;
    std::atomic<int> ready{0};
    std::atomic<int> mixedUp{0};
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int n = 0; n < THREADS; ++n) {
        threads.emplace_back([&, mark = static_cast<char>('a' + n)] {
            ++ready;
            while (ready < THREADS) std::this_thread::yield();
            for (int i = 0; i < 20000; ++i) {
                BodyBlock block(SMALLEST_KEPT);
                BodyBlock other(SMALLEST_KEPT);
                block.get()[0] = mark;
                other.get()[0] = static_cast<char>(mark + THREADS);
                if (block.get()[0] != mark) ++mixedUp;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(mixedUp, 0);
    EXPECT_EQ(keptOf(20, SMALLEST_KEPT), 16) << "the blocks were counted wrongly";
}

}  // namespace
}  // namespace qvtp_test
