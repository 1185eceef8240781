#include <qvtp/io/QvPipe.h>

#include "support/FailingCall_linux.h"
#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

namespace qvtp_test {
namespace {

using Quovane::Io::QvPipe;
using Quovane::Io::ServerQvPipe;

TEST(QvPipeWithoutAnEvent, IsClosedByItsConstructor) {
    const std::string name = uniquePipeName();
    RawServer server(name);
    std::string thrown;
    {
        const CallFailure failure(CallFailure::Call::EVENTFD, EMFILE);
        thrown = thrownBy([&] { const QvPipe pipe(name, true, true); });
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_EQ(thrown, "QvPipeException: Unrecognized pipe connect error");
    char byte = 0;
    EXPECT_EQ(thrownBy([&] { server.accept()->readPipe(&byte, 0, 1, 20000); }), "QvPipeException: QvPipe read failed.")
        << "the connection has ended";
}

TEST(ServerQvPipeWithoutAnEvent, LeavesTheNameFree) {
    const std::string name = uniquePipeName();
    std::string thrown;
    {
        const CallFailure failure(CallFailure::Call::EVENTFD, EMFILE);
        thrown = thrownBy([&] { const ServerQvPipe server(name, true, true); });
        EXPECT_TRUE(failure.hasHappened());
    }
    EXPECT_EQ(thrown.rfind("BindException: ", 0), 0U) << thrown;
    EXPECT_EQ(thrownBy([&] { const ServerQvPipe server(name, true, true); }), "nothing");
}

}  // namespace
}  // namespace qvtp_test
