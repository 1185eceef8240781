#include "common/BodyBlock.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::BodyBlock;

constexpr std::size_t SIZE = std::size_t{256} * 1024;

/// Makes and drops large blocks.
void useBlocks(int rounds) {
    for (int i = 0; i < rounds; ++i) {
        BodyBlock block(SIZE);
        std::memset(block.get(), i, 100);
    }
}

TEST(BodyBlockInAForkedChild, IsMadeAndDroppedWhileTheParentsThreadsUseThem) {
    if (QVTP_SANITIZED) GTEST_SKIP() << "a sanitizer's allocator has a lock, which such a fork may leave taken";
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.reserve(3);
    for (int n = 0; n < 3; ++n) {
        threads.emplace_back([&stop] {
            while (!stop) useBlocks(10);
        });
    }
    // Some of them are forked while a thread of the parent, which the child does not have, holds the lock.
    for (int i = 0; i < 20; ++i) {
        const int child = startChildAtOnce([] {
            useBlocks(10);
            return 7;
        });
        EXPECT_EQ(resultOf(child), 7);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace qvtp_test
