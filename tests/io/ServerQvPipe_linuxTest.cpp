#include <qvtp/io/ServerQvPipe.h>

#include "support/LogCapture.h"
#include "support/PipeName.h"
#include "support/Process.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>

namespace qvtp_test {
namespace {

using namespace Quovane::Io;
using namespace std::chrono_literals;

/// A directory that is no longer private keeps the next instance from being created.
class ServerPipeRecovery : public ::testing::Test {
  protected:
    ServerPipeRecovery() {
        allow(true);
        ::setenv("QVTP_PIPE_DIR", directory.c_str(), 1);
    }
    ~ServerPipeRecovery() override { allow(true); }  // the variable stays for the tests that follow
    void allow(bool isPrivate) const { ::chmod(directory.c_str(), isPrivate ? 0700 : 0755); }

    const std::string directory = makeTestDirectory();
    const std::string name = uniquePipeName();
};

TEST_F(ServerPipeRecovery, CreatesTheNextInstanceLaterWhenItCouldNotAtOnce) {
    ServerQvPipe server(name, true, true);
    QvPipe first(name, true, true);
    allow(false);
    EXPECT_EQ(thrownBy([&] { server.accept(); }), "QvPipeException: CreateNamedPipe failed");
    EXPECT_GE(
        elapsed([&] { EXPECT_EQ(thrownBy([&] { server.accept(); }), "QvPipeException: CreateNamedPipe failed"); }),
        95ms);
    allow(true);
    server.setAcceptTimeout(5000);
    first.close();
    auto accepting = std::async(std::launch::async, [&] { return thrownBy([&] { server.accept(); }); });
    EXPECT_TRUE(eventually([&] { return thrownBy([&] { first.connect(); }) == "nothing"; }));
    EXPECT_EQ(accepting.get(), "nothing");
}

TEST_F(ServerPipeRecovery, HasHandedTheConnectionOverBeforeTheNextInstanceFails) {
    ServerQvPipe server(name, true, true);
    QvPipe client(name, true, true);
    allow(false);
    QvPipe accepted;
    EXPECT_EQ(thrownBy([&] { server.accept(accepted); }), "QvPipeException: CreateNamedPipe failed");
    client.writePipe("x", 0, 1);
    char byte = 0;
    EXPECT_EQ(accepted.readPipe(&byte, 0, 1, 1000), 1);
}

}  // namespace
}  // namespace qvtp_test
