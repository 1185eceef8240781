#include <qvtp/qvtp.h>

#include "platform/BackEnd.h"
#include "support/LogCapture.h"
#include "support/Process.h"
#include "support/TestServer.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

class TwoProcesses : public ::testing::Test {
  protected:
    /// Starts the other process and waits until it is ready.
    std::unique_ptr<Process> start(const std::vector<std::string>& arguments) {
        const std::string output = directory + "/" + std::to_string(++started) + ".txt";
        auto process = std::make_unique<Process>(QVTP_TEST_PEER, arguments, output);
        EXPECT_TRUE(eventually([&] { return contentsOfFile(output) == "ready\n"; })) << contentsOfFile(output);
        return process;
    }
    std::unique_ptr<Process> serve() { return start({"serve", name}); }

    std::string post(const std::string& text) {
        PostRequest request(&client, name, "/echo");
        request.setBody(text.data(), text.size());
        const std::unique_ptr<QvtpResponse> response(request.execute());
        return bodyOf(*response);
    }
    void notify(const std::string& resource) {
        NotifyRequest request(&client, name, resource);
        request.setBody("", 0);
        request.execute();
    }

    const std::string directory = makeTestDirectory();
    const std::string name = uniquePipeName();
    QvtpClient client;
    int started = 0;
};

TEST_F(TwoProcesses, TalkFromClientToServer) {
    const auto server = serve();
    EXPECT_EQ(post("across processes"), "across processes");
    EXPECT_EQ(post(std::string(3 << 20, 'x')).size(), std::size_t{3} << 20);
    notify("/stop");
    EXPECT_EQ(server->wait(), 0);
}

TEST_F(TwoProcesses, TalkFromManyClientProcessesAtOnce) {
    TestServer server;
    server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, 0);
    server.start();
    std::vector<std::unique_ptr<Process>> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(start({"post", server.name, "200"}));
    for (const auto& process : clients) EXPECT_EQ(process->wait(), 0);
}

TEST_F(TwoProcesses, LeaveNothingBehindThatStopsTheNextServerAfterAKill) {
    for (int round = 0; round < 3; ++round) {
        const auto server = serve();
        EXPECT_EQ(post("round"), "round");
        server->kill();
        server->wait();
    }
}

TEST_F(TwoProcesses, FailCleanlyForAClientWhoseServerIsKilledWhileItWaits) {
    const auto server = serve();
    ASSERT_EQ(post("x"), "x");
    server->kill();
    server->wait();
    const std::string thrown = thrownBy([&] { post("y"); });
    EXPECT_EQ(thrown, "QvPipeException: Could not connect to pipe.");
}

TEST_F(TwoProcesses, CostTheServerOneWorkerUntilItsTimeoutForAKilledClient) {
    TestServer server;
    server.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 60000);
    server.start();
    LogCapture log;
    const int idle = server.server.idleRequestProcessors();
    const auto hung = start({"hang", server.name});
    ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == 1; }));
    hung->kill();
    hung->wait();
    EXPECT_TRUE(eventually([&] { return log.contains("DEBUG Closing QvPipe (" + server.name + "/Worker-1). "); }));
    EXPECT_TRUE(eventually([&] { return server.server.idleRequestProcessors() == idle; }));  // it has ended
    const auto other = start({"post", server.name, "5"});
    EXPECT_EQ(other->wait(), 0);
    EXPECT_TRUE(log.contains("DEBUG Deleting idle worker " + server.name + "/Worker-1."));
}

TEST_F(TwoProcesses, CannotServeOneNameBoth) {
    if (!backend::refusesSecondFirstInstance()) GTEST_SKIP() << "the first-instance flag is not enforced here";
    const auto server = serve();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    const QvtpServer second(name, 1);
    EXPECT_TRUE(
        log.contains("ERROR Failed to create the QvtpServer with the named pipe " + name + ". CreateNamedPipe failed"));
}

}  // namespace
}  // namespace qvtp_test
