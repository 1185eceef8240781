#include "logging/Log.h"
#include "platform/PipeContract.h"
#include "support/Holdings.h"
#include "support/OutOfMemory.h"

namespace qvtp_test {
namespace {

constexpr int NOT_ENOUGH_MEMORY = 8;

using Duration = OutOfMemory::Extent;

/// Routines that find no memory, at each of their allocations in turn. Long names, so that texts need memory too.
class ShortOfMemory : public PipeContract, public ::testing::WithParamInterface<Duration> {
  protected:
    void SetUp() override { platform::loggingLevel(); }  // the log's own beginning is none of this

    struct Ends {
        End server, client, next;
    };

    /// A server, a client, a byte each way and another instance, as far as that goes.
    void begin(Ends& ends) {
        const int created =
            platform::platformCreateInstance(longPath, true, true, true, ends.server.pipe, ends.server.event);
        if (created != 0) return expectFailure(ends.server, created, NOT_ENOUGH_MEMORY);
        const int connected =
            platform::platformConnect(longPath, true, true, 2000, ends.client.pipe, ends.client.event);
        if (connected != 0) return expectFailure(ends.client, connected, ConnectResult::CANNOT_OPEN);
        const int accepted = accept(ends.server);
        if (accepted != 0) return expectTransferFailure(accepted, AcceptResult::CONNECT_ERROR);
        const int added = platform::platformCreateNextInstance(ends.server.pipe, longPath, true, true, ends.next.pipe,
                                                               ends.next.event);
        if (added != 0) expectFailure(ends.next, added, NOT_ENOUGH_MEMORY);
        exchange(ends.client, ends.server);
        exchange(ends.server, ends.client);
    }
    static void exchange(const End& from, const End& to) {
        const int written = platform::platformWrite(from.pipe, from.event, "x", 1);
        if (written != 0) return expectTransferFailure(written, WriteResult::FAILED);
        char byte = 0;
        const int count = platform::platformRead(to.pipe, to.event, &byte, 1, 2000);
        if (count != 1) return expectTransferFailure(count, ReadResult::FAILED);
        EXPECT_EQ(byte, 'x');
    }
    static void expectFailure(const End& end, int result, int expected) {
        EXPECT_EQ(result, expected);
        EXPECT_FALSE(end.isOpen());
    }
    static void expectTransferFailure(int result, int expected) {
        EXPECT_TRUE(backend::needsMemoryToTransfer());
        EXPECT_EQ(result, expected);
    }

    const std::string longPath = path() + std::string(150, 'x');
};

TEST_P(ShortOfMemory, IsAFailureThatLeavesNothingBehind) {
    int handles = 0;
    for (int n = 1; n < 1000; ++n) {
        bool isLast = false;
        {
            Ends ends;
            const OutOfMemory failure(n, GetParam());
            begin(ends);
            isLast = !failure.hasFailed();
        }
        Ends ends;
        begin(ends);
        ASSERT_TRUE(ends.server.isOpen() && ends.client.isOpen() && ends.next.isOpen()) << n;
        const int now = Holdings::now().handles;
        if (n == 1) handles = now;
        ASSERT_LE(now, handles + Holdings::LATE_HANDLES) << n;
        if (isLast) return;
    }
    FAIL() << "allocates without end";
}

INSTANTIATE_TEST_SUITE_P(OnceAndLasting, ShortOfMemory,
                         ::testing::Values(OutOfMemory::ONCE, OutOfMemory::FROM_THEN_ON));

TEST_P(ShortOfMemory, IsNoHindranceToAClose) {
    for (int round = 0; round < 2; ++round) {
        Ends ends;
        begin(ends);
        ASSERT_TRUE(ends.next.isOpen());
        const OutOfMemory failure(1, GetParam());
        ends.client.close();
        platform::platformCloseServer(ends.next.pipe, ends.next.event);
        ends.next.forget();
        ends.server.close();
        EXPECT_FALSE(failure.hasFailed());
    }
    End late;
    EXPECT_EQ(platform::platformConnect(longPath, true, true, 100, late.pipe, late.event), ConnectResult::CANNOT_OPEN);
}

}  // namespace
}  // namespace qvtp_test
