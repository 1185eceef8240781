#include "easy/Easy.h"

#include "support/Process.h"

namespace qvtp_test {
namespace {

class EasyProcesses : public ::testing::Test {
  protected:
    std::unique_ptr<Process> start(const std::vector<std::string>& arguments) {
        const std::string output = directory + "/" + std::to_string(++started) + ".txt";
        auto process = std::make_unique<Process>(QVTP_EASY_PEER, arguments, output);
        EXPECT_TRUE(eventually([&] { return contentsOfFile(output) == "ready\n"; })) << contentsOfFile(output);
        return process;
    }
    std::unique_ptr<Process> serve() { return start({"serve", name}); }

    const std::string directory = makeTestDirectory();
    const std::string name = uniquePipeName();
    Client client{name, 20s};
    int started = 0;
};

TEST_F(EasyProcesses, TalkFromClientToServer) {
    const auto server = serve();
    EXPECT_EQ(client.post("/echo", "across").body(), "across");
    EXPECT_EQ(client.post("/echo", std::string(3 << 20, 'x')).body().size(), std::size_t{3} << 20);
    client.notify("/stop");
    EXPECT_EQ(server->wait(), 0);
    EXPECT_EQ(kindOf([&] { client.post("/echo"); }), "not_sent");
    EXPECT_EQ(kindOf([&] { client.post("/echo"); }), "no_server");
}

TEST_F(EasyProcesses, HaveManyClients) {
    Server server(name);
    server.onPost("/echo", [](const Request& request) { return Reply(request.body()); });
    server.start();
    std::vector<std::unique_ptr<Process>> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(start({"post", name, "200"}));
    for (const auto& process : clients) EXPECT_EQ(process->wait(), 0);
    EXPECT_EQ(server.counters().posts, 800U);
}

TEST_F(EasyProcesses, EndInAnUnknownOutcomeIfTheServerIsKilledBeforeItsReply) {
    const auto server = serve();
    auto kind = std::async(std::launch::async, [&] { return kindOf([&] { client.post("/never"); }); });
    ASSERT_TRUE(eventually([&] { return client.post("/count").body() == "1"; }));
    server->kill();
    EXPECT_EQ(kind.get(), "unknown_outcome");
}

TEST_F(EasyProcesses, EndInACutOffIfTheServerIsKilledWithinItsReply) {
    const auto server = serve();
    qvtp::CallOptions options;
    options.onPiece = [&](std::string_view piece, const qvtp::Progress&) {
        EXPECT_EQ(piece, "half");
        server->kill();
    };
    EXPECT_EQ(kindOf([&] { client.post("/half", "", options); }), "cut_off");
}

TEST_F(EasyProcesses, FindANameTakenThatAnotherProcessServes) {
    const auto server = serve();
    EXPECT_EQ(kindOf([&] { Server second(name); }), "name_taken");
    server->kill();
    server->wait();
    EXPECT_EQ(kindOf([&] { Server second(name); }), "nothing");
}

TEST_F(EasyProcesses, AreSeenByTheServerAsPeers) {
    const auto server = serve();
    EXPECT_EQ(client.post("/peer").body(), std::to_string(Quovane::Io::currentProcessId()));
}

#ifdef QVTP_EASY_SERVER
TEST_F(EasyProcesses, AreTheExamples) {
    const Process server(QVTP_EASY_SERVER, {name}, directory + "/server.txt");
    const auto ask = [&](const std::vector<std::string>& arguments, int exitCode) {
        const std::string output = directory + "/client.txt";
        std::vector<std::string> all = {name};
        all.insert(all.end(), arguments.begin(), arguments.end());
        EXPECT_EQ(Process(QVTP_EASY_CLIENT, all, output).wait(), exitCode);
        return contentsOfFile(output);
    };
    ASSERT_TRUE(eventually([&] { return kindOf([&] { client.post("/notes/x"); }) == "nothing"; }));
    EXPECT_EQ(ask({"/notes/a%20b", "kept"}, 0), "200 OK\n");
    EXPECT_EQ(ask({"/notes/a%20b", ""}, 0), "kept200 OK\n");
    EXPECT_EQ(ask({"/notes/b", ""}, 1), "There is no note b.404 Not Found\n");
    EXPECT_EQ(ask({"/lines", "one\ntwo\nthree"}, 0), "3200 OK\n");
    EXPECT_EQ(ask({"/numbers", "3"}, 0), "1\n2\n3\n200 OK\n");
    EXPECT_EQ(ask({"/numbers", "x"}, 1), "500 Internal Server Error\n");
    EXPECT_EQ(ask({"/log", "-n", "noted"}, 0), "");
    EXPECT_TRUE(
        eventually([&] { return contentsOfFile(directory + "/server.txt").find("noted\n") != std::string::npos; }));
}
#endif

}  // namespace
}  // namespace qvtp_test
