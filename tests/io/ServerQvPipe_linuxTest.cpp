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
TEST(ServerPipeRecovery, CreatesTheNextInstanceLaterWhenItCouldNotAtOnce) {
    const std::string directory = makeTestDirectory();
    ::chmod(directory.c_str(), 0700);
    ::setenv("QVTP_PIPE_DIR", directory.c_str(), 1);
    const std::string name = uniquePipeName();
    ServerQvPipe server(name, true, true);
    QvPipe first(name, true, true);
    ::chmod(directory.c_str(), 0755);
    EXPECT_EQ(thrownBy([&] { server.accept(); }), "QvPipeException: CreateNamedPipe failed");
    EXPECT_GE(
        elapsed([&] { EXPECT_EQ(thrownBy([&] { server.accept(); }), "QvPipeException: CreateNamedPipe failed"); }),
        95ms);
    ::chmod(directory.c_str(), 0700);
    server.setAcceptTimeout(5000);
    first.close();
    auto accepting = std::async(std::launch::async, [&] { return thrownBy([&] { server.accept(); }); });
    EXPECT_TRUE(eventually([&] { return thrownBy([&] { first.connect(); }) == "nothing"; }));
    EXPECT_EQ(accepting.get(), "nothing");
}

}  // namespace
}  // namespace qvtp_test
