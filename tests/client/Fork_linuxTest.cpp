#include <qvtp/client/NotifyRequest.h>
#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpResponse.h>

#include "support/Child.h"
#include "support/Holdings.h"
#include "support/PipeName.h"
#include "support/Process.h"
#include "support/TestServer.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;
using Quovane::Io::QvPipe;

/// A client with an idle pipe to a server in another process: a fork copies the client, but no thread of the server.
class Fork : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string output = makeTestDirectory() + "/output.txt";
        server = std::make_unique<Process>(QVTP_TEST_PEER, std::vector<std::string>{"serve", name}, output);
        ASSERT_TRUE(eventually([&] { return contentsOfFile(output) == "ready\n"; })) << contentsOfFile(output);
        ASSERT_EQ(post("first"), "first");
    }
    void TearDown() override {
        NotifyRequest request(&client, name, "/stop");
        request.setBody("", 0);
        request.execute();
        EXPECT_EQ(server->wait(), 0);
    }

    std::string post(const std::string& body) {
        PostRequest request(&client, name, "/echo");
        request.setBody(body.data(), body.size());
        const std::unique_ptr<QvtpResponse> response(request.execute());
        return bodyOf(*response);
    }
    /// How many answers are not the body that was sent.
    int wrongAnswers(const std::string& who, int count) {
        int wrong = 0;
        for (int i = 0; i < count; ++i) {
            const std::string body = who + std::to_string(i);
            if (post(body) != body) ++wrong;
        }
        return wrong;
    }

    const std::string name = uniquePipeName();
    QvtpClient client;
    std::unique_ptr<Process> server;
};

TEST_F(Fork, NeverMixesTheAnswersOfParentAndChild) {
    constexpr int COUNT = 300;
    const int child = startChild([&] { return wrongAnswers("child ", COUNT) == 0 ? 0 : 1; });
    EXPECT_EQ(wrongAnswers("parent ", COUNT), 0);
    EXPECT_EQ(resultOf(child), 0);
}

TEST_F(Fork, LeavesTheParentItsPipeWhenTheChildDropsIt) {
    EXPECT_EQ(resultInChild([&] { return post("child") == "child" ? 0 : 1; }), 0);
    QvPipe* const pipe = client.getManager()->getPipe(name, "rw");
    pipe->writePipe("POST /echo QVTP/1.0\r\nContent-Length: 0\r\n\r\n", 0, 42);
    char answer[4] = {};
    EXPECT_EQ(pipe->readPipe(answer, 0, 4, 20000), 4);
    client.getManager()->removePipe(pipe);
}

TEST_F(Fork, LeavesTheChildNoDescriptorOfAnIdlePipe) {
    const auto holdsAsManyAfterAPost = [&] {
        const int before = Holdings::now().handles;
        return post("child") == "child" && Holdings::now().handles == before ? 0 : 1;
    };
    EXPECT_EQ(resultInChild(holdsAsManyAfterAPost), 0);
}

TEST_F(Fork, LeavesTheParentTheAnswerToARequestThatTheChildDestroys) {
    auto request = std::make_unique<PostRequest>(&client, name, "/echo");
    const std::string body(20000, 'b');
    request->setBody(body.data(), body.size());
    const std::unique_ptr<QvtpResponse> response(request->execute());
    const auto destroy = [&] {
        request.reset();
        return post("child") == "child" ? 0 : 1;
    };
    EXPECT_EQ(resultInChild(destroy), 0);
    EXPECT_EQ(bodyOf(*response), body);
}

TEST_F(Fork, ClosesAPipeOfTheParentThatTheChildGivesBack) {
    QvPipe* const pipe = client.getManager()->getPipe(name, "rw");
    const auto giveBack = [&] {
        const int before = Holdings::now().handles;
        client.getManager()->returnPipe(pipe);
        return Holdings::now().handles < before ? 0 : 1;
    };
    EXPECT_EQ(resultInChild(giveBack), 0);
    client.getManager()->returnPipe(pipe);
    EXPECT_EQ(post("parent"), "parent");
}

}  // namespace
}  // namespace qvtp_test
