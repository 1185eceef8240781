#include <qvtp/io/ServerQvPipe.h>

#include "support/Holdings.h"
#include "support/OutOfMemory.h"
#include "support/PipeName.h"

#include <gtest/gtest.h>

#include <exception>

namespace qvtp_test {
namespace {

using namespace Quovane::Io;
using Duration = OutOfMemory::Extent;

/// A server pipe that finds no memory, at each of its allocations in turn.
class ServerPipeWithoutMemory : public ::testing::TestWithParam<Duration> {
  protected:
    /// A server serves a client, by value and into a pipe, as far as that goes. False if something was thrown.
    bool serve() const {
        try {
            ServerQvPipe server(name, true, true);
            for (const bool byValue : {true, false}) {
                QvPipe client(name, true, true);
                QvPipe into;
                if (!byValue) server.accept(into);
                QvPipe accepted = byValue ? server.accept() : into;
                client.writePipe("x", 0, 1);
                char byte = 0;
                if (accepted.readPipe(&byte, 0, 1, 2000) != 1 || byte != 'x') return false;
            }
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }

    const std::string name = uniquePipeName() + std::string(100, 'x');
};

TEST_P(ServerPipeWithoutMemory, LeavesNothingBehindThatIsInTheWay) {
    int handles = 0;
    for (int n = 1; n < 1000; ++n) {
        bool isLast = false;
        {
            const OutOfMemory failure(n, GetParam());
            const bool hasServed = serve();
            isLast = !failure.hasFailed();
            ASSERT_TRUE(hasServed || !isLast);
        }
        ASSERT_TRUE(serve()) << n;
        const int now = Holdings::now().handles;
        if (n == 1) handles = now;
        ASSERT_LE(now, handles + Holdings::LATE_HANDLES) << n;
        if (isLast) return;
    }
    FAIL() << "allocates without end";
}

INSTANTIATE_TEST_SUITE_P(OnceAndLasting, ServerPipeWithoutMemory,
                         ::testing::Values(OutOfMemory::ONCE, OutOfMemory::FROM_THEN_ON));

}  // namespace
}  // namespace qvtp_test
