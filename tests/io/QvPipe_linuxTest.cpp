#include <qvtp/io/QvPipe.h>

#include "support/FailingCall_linux.h"
#include "support/LogCapture.h"
#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <istream>
#include <memory>
#include <string>
#include <vector>

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

TEST(QvPipeWithoutABuffer, TakesASingleByteWithEachRead) {
    const std::string name = uniquePipeName();
    RawServer server(name);
    QvPipe pipe(name, true, true);
    RawServer::write(*server.accept(), "abcdef");
    std::istream& in = *pipe.getInputStream();
    EXPECT_EQ(in.get(), 'a');
    char bytes[5] = {};
    const CallFailure failure(CallFailure::Call::RECEIVE, EIO, 1, 3);
    EXPECT_NE(thrownBy([&] { in.read(bytes, 5); }), "nothing");
    EXPECT_TRUE(failure.hasHappened());
    EXPECT_EQ(in.gcount(), 0);
}

TEST(ServerQvPipeWhoseWaitFails, SaysSoInItsLineAndInItsException) {
    const std::string name = uniquePipeName();
    ServerQvPipe server(name, true, true);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    const CallFailure failure(CallFailure::Call::POLL, ENOMEM);
    QvPipe accepted;
    EXPECT_EQ(thrownBy([&] { server.accept(accepted); }), "QvPipeException: QvPipe wait failed in accept");
    const std::vector<std::string> lines = log.messages();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "ERROR Wait failed in Accept."), 1);
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
