#include "server/Worker.h"
#include "support/FailingCall_linux.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <string>

namespace qvtp_test {
namespace {

struct Outcome {
    std::string received;  // by the client, before the server hangs up
    std::string thrown;    // by send()
    bool committed = false;
};

/// A response whose send is cut after some bytes.
class CutResponse : public Worker {
  protected:
    /// The response to "hello".
    Outcome postCutAt(std::size_t cut) {
        std::promise<Outcome> sent;
        server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse& response) {
            response.setStatusCode(200);
            response.setBody("hello", 5);
            const SendCut sendCut(cut, EPIPE);
            const std::string thrown = thrownBy([&] { response.send(); });
            sent.set_value({"", thrown, response.isCommitted()});
        };
        RawClient client(server.name);
        client.write(POST_HELLO);
        const std::string received = cut < whole.size() ? client.readToEnd() : client.read(whole.size());
        Outcome outcome = sent.get_future().get();
        outcome.received = received;
        return outcome;
    }

    const std::string whole = HELLO_BACK;
};

TEST_F(CutResponse, IsCommittedWhereverItIsCutAndEndsTheConnection) {
    server.start();
    for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
        const Outcome outcome = postCutAt(cut);
        const bool isCut = cut < whole.size();
        EXPECT_EQ(outcome.received, whole.substr(0, cut));
        EXPECT_EQ(outcome.thrown, isCut ? "BrokenPipeException: Pipe was closed at other end." : "nothing") << cut;
        EXPECT_TRUE(outcome.committed) << cut;
    }
}

}  // namespace
}  // namespace qvtp_test
