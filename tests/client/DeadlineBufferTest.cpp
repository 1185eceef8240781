#include "client/DeadlineBuffer.h"

#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

namespace qvtp_test {
namespace {

using namespace std::chrono_literals;
using Quovane::Internal::Qvtp::DeadlineBuffer;
using Quovane::Io::QvPipe;

/// A pipe from which three bytes were read into its area, and the first of them out of it.
class DeadlineOfAPipe : public ::testing::Test {
  protected:
    void SetUp() override {
        client.connect(name, true, true);
        pipe = server.accept();
        client.getInputStream()->rdbuf()->pubsetbuf(area, sizeof area);
        RawServer::write(*pipe, "abc");
        ASSERT_EQ(client.getInputStream()->get(), 'a');
    }

    const std::string name = uniquePipeName();
    RawServer server{name};
    std::unique_ptr<QvPipe> pipe;
    char area[16];
    QvPipe client;
};

TEST_F(DeadlineOfAPipe, LetsAllThroughThatIsThere) {
    DeadlineBuffer buffer(&client, 1);
    spinFor(2ms);
    EXPECT_EQ(buffer.sbumpc(), 'b');
    EXPECT_EQ(buffer.sgetc(), 'c');
    EXPECT_EQ(buffer.sbumpc(), 'c');
}

TEST_F(DeadlineOfAPipe, EndsWhatWouldWait) {
    DeadlineBuffer buffer(&client, 1);
    buffer.sbumpc();
    buffer.sbumpc();
    spinFor(2ms);
    EXPECT_EQ(thrownBy([&] { buffer.sgetc(); }), "TimeoutException: QvPipe read timeout.");
    EXPECT_EQ(thrownBy([&] { buffer.sbumpc(); }), "TimeoutException: QvPipe read timeout.");
}

TEST_F(DeadlineOfAPipe, GivesThePipeItsOwnTimeoutBack) {
    client.setReadTimeout(4321);
    {
        DeadlineBuffer buffer(&client, 60000);
        for (int i = 0; i < 2; ++i) buffer.sbumpc();
        RawServer::write(*pipe, "d");
        EXPECT_EQ(buffer.sbumpc(), 'd');
        EXPECT_NE(client.getReadTimeout(), 4321);
    }
    EXPECT_EQ(client.getReadTimeout(), 4321);
}

}  // namespace
}  // namespace qvtp_test
