#include "server/Worker.h"
#include "support/FailingCall_linux.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace qvtp_test {
namespace {

/// A response whose send is cut after some bytes.
class CutResponse : public Worker {
  protected:
    /// What the client of a response to "hello" gets before the server hangs up.
    std::string postCutAt(std::size_t cut) {
        server.handler.onPost = [this, cut](QvtpServerRequest&, QvtpServerResponse& response) {
            response.setStatusCode(200);
            response.setBody("hello", 5);
            const SendCut sendCut(cut, EPIPE);
            thrown = thrownBy([&] { response.send(); });
            committed = response.isCommitted();
        };
        RawClient client(server.name);
        client.write(POST_HELLO);
        return cut < whole.size() ? client.readToEnd() : client.read(whole.size());
    }

    const std::string whole = HELLO_BACK;
    std::string thrown;
    bool committed = false;
};

TEST_F(CutResponse, IsCommittedWhereverItIsCutAndEndsTheConnection) {
    server.start();
    for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
        EXPECT_EQ(postCutAt(cut), whole.substr(0, cut));
        const bool isCut = cut < whole.size();
        EXPECT_EQ(thrown, isCut ? "BrokenPipeException: Pipe was closed at other end." : "nothing") << cut;
        EXPECT_TRUE(committed) << cut;
    }
}

}  // namespace
}  // namespace qvtp_test
