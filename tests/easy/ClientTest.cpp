#include "easy/Easy.h"

#include "support/TestServer.h"

#include <sstream>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

class EasyClient : public Easy {
  protected:
    EasyClient() { large.resize(300000, 'x'); }

    std::string large;
};

TEST_F(EasyClient, PostsAndReceivesValues) {
    server.start();
    const Reply reply = client.post("/echo", std::string("a\0b", 3));
    EXPECT_EQ(reply.status(), 200);
    EXPECT_TRUE(reply.ok());
    EXPECT_EQ(reply.reason(), "OK");
    EXPECT_EQ(reply.body(), std::string("a\0b", 3));
    EXPECT_EQ(client.post("/echo").body(), "");
    EXPECT_EQ(client.post("/echo", large).body(), large);
}

TEST_F(EasyClient, NotifiesWithoutAnAnswer) {
    server.start();
    client.notify("/log", "it works");
    EXPECT_EQ(logged.get_future().get(), "it works");
}

TEST_F(EasyClient, UsesItsConnectionsAgain) {
    server.start();
    for (int i = 0; i < 20; ++i) client.post("/echo", "x");
    // A connection may be answered a moment before it is counted.
    EXPECT_TRUE(eventually([&] { return server.counters().connections > 0; }));
    EXPECT_EQ(server.counters().connections, 1);
}

TEST_F(EasyClient, IsUsedByManyThreadsAtOnce) {
    server.start();
    std::vector<std::future<int>> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.push_back(std::async(std::launch::async, [&, thread] {
            int right = 0;
            for (int i = 0; i < 100; ++i) {
                const std::string body = std::to_string(thread * 1000 + i);
                right += client.post("/echo", body).body() == body ? 1 : 0;
            }
            return right;
        }));
    }
    for (auto& thread : threads) EXPECT_EQ(thread.get(), 100);
}

TEST_F(EasyClient, ConnectsAgainUnseenIfTheServerWasRestarted) {
    server.start();
    EXPECT_EQ(client.post("/echo", "1").body(), "1");
    server.stop();
    server.start();
    EXPECT_EQ(client.post("/echo", "2").body(), "2");
}

TEST_F(EasyClient, FindsAReplyInChunksWholeThatComesOverANewConnection) {
    server.onPost("/chunks", [](const Request&) { return Reply::stream([](std::ostream& out) { out << "chunk"; }); });
    server.start();
    EXPECT_EQ(client.post("/chunks").body(), "chunk");
    server.stop();
    server.start();
    EXPECT_EQ(client.post("/chunks").body(), "chunk");
}

TEST_F(EasyClient, DropsConnectionsThatWereIdleForTooLong) {
    qvtp::ClientOptions options;
    options.idleTimeout = 1ms;
    Client hasty(name, options);
    server.start();
    hasty.post("/echo", "x");
    const auto end = std::chrono::steady_clock::now() + 5ms;
    EXPECT_TRUE(eventually([&] { return std::chrono::steady_clock::now() > end; }));
    hasty.post("/echo", "x");
    EXPECT_EQ(server.counters().posts, 2U);
    EXPECT_TRUE(eventually([&] { return server.counters().connections == 1; }) || server.counters().connections == 2);
}

TEST_F(EasyClient, KeepsIdleConnectionsWithoutLimitIfItIsTold) {
    for (const qvtp::Milliseconds idleTimeout : {0ms, qvtp::Milliseconds::max(), qvtp::Milliseconds::min()}) {
        TestServer counting;
        counting.start();
        qvtp::ClientOptions options;
        options.idleTimeout = idleTimeout;
        Client patient(counting.name, options);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(patient.post("/", "x").body(), "x");
            const auto end = std::chrono::steady_clock::now() + 2ms;
            EXPECT_TRUE(eventually([&] { return std::chrono::steady_clock::now() > end; }));
        }
        EXPECT_EQ(counting.server.statistics().connections, 1) << idleTimeout.count();
    }
}

// ---- Headers ----

TEST_F(EasyClient, SendsAndReceivesHeaders) {
    server.onPost("/headers", [](const Request& request) {
        Reply reply(request.header("x-one") + "|" + request.header("X-TWO") + "|" + request.header("User-Agent"));
        return reply.addHeader("X-List", "a").addHeader("x-list", "b").addHeader("Server", "mine");
    });
    server.start();
    qvtp::CallOptions options;
    options.headers = {{"X-One", "1"}, {"X-Two", "Sun, 22 Nov"}, {"X-One", "more"}, {"user-agent", "me"}};
    const Reply reply = client.post("/headers", "", options);
    EXPECT_EQ(reply.body(), "1, more|Sun, 22 Nov|me");
    EXPECT_THAT(reply.headers(),
                ElementsAre(Pair("Content-Length", "22"), Pair("Server", "mine"), Pair("X-List", "a, b")));
    EXPECT_EQ(reply.header("x-LIST"), "a, b");
}

// ---- Streamed bodies ----

TEST_F(EasyClient, StreamsABodyFromAStream) {
    server.start();
    std::istringstream body(large);
    std::vector<std::uint64_t> steps;
    qvtp::CallOptions options;
    options.onSent = [&](const qvtp::Progress& progress) {
        steps.push_back(progress.bytes);
        EXPECT_EQ(progress.total, 300000);
    };
    EXPECT_EQ(client.post("/echo", {body, 300000}, options).body(), large);
    EXPECT_EQ(steps.front(), 40960U);
    EXPECT_EQ(steps.back(), 300000U);
    EXPECT_EQ(steps.size(), 8U);
}

TEST_F(EasyClient, StreamsABodyFromAFunction) {
    server.start();
    int calls = 0;
    const auto source = [&](char* buffer, std::size_t) -> std::size_t {
        if (++calls > 1000) return 0;
        *buffer = 'f';
        return 1;
    };
    EXPECT_EQ(client.post("/echo", qvtp::Body(source)).body(), std::string(1000, 'f'));
    calls = 1000;
    EXPECT_EQ(client.post("/echo", qvtp::Body(source)).body(), "");
}

TEST_F(EasyClient, SaysWhenItHasAConnectionAndTheServerHasNothingYet) {
    server.start();
    std::vector<std::uint64_t> posts;
    qvtp::CallOptions options;
    options.onConnected = [&] { posts.push_back(server.counters().posts); };
    client.post("/echo", "x", options);
    client.post("/echo", "x", options);
    EXPECT_THAT(posts, ElementsAre(0U, 1U));
    options.onConnected = [] { throw std::runtime_error("not today"); };
    EXPECT_EQ(whatOf([&] { client.post("/echo", "x", options); }), "not today");
    EXPECT_EQ(client.post("/echo", "x").body(), "x");
    EXPECT_EQ(server.counters().posts, 3U);
    server.stop();
    options.onConnected = [&] { ADD_FAILURE() << "there is no server"; };
    EXPECT_EQ(kindOf([&] { qvtp::Client(name).post("/echo", "x", options); }), "no_server");
}

/// The handlers answer only when the client knows that all is sent.
TEST_F(EasyClient, SaysWhenAWholeBodyIsSent) {
    std::string steps;
    std::promise<void> sent;
    server.onPost("/wait", [&](const Request& request) {
        const std::string& body = request.body();  // before: no system takes all of it without a reader
        EXPECT_EQ(sent.get_future().wait_for(10s), std::future_status::ready);
        return Reply(body);
    });
    server.start();
    qvtp::CallOptions options;
    options.onConnected = [&] { steps += "connected "; };
    options.onSent = [&](const qvtp::Progress& progress) {
        steps += std::to_string(progress.bytes) + "/" + std::to_string(progress.total) + " ";
        sent.set_value();
    };
    for (const auto timeout : {10s, 0s}) {
        options.timeout = timeout;
        EXPECT_EQ(client.post("/wait", large, options).body(), large);
        sent = {};
        EXPECT_EQ(client.post("/wait", "", options).body(), "");
        sent = {};
    }
    client.notify("/log", "abc", options);
    EXPECT_EQ(logged.get_future().get(), "abc");
    const std::string both = "connected 300000/300000 connected 0/0 ";
    EXPECT_EQ(steps, both + both + "connected 3/3 ");
    // One for each kind: all connections were good for another call.
    EXPECT_TRUE(eventually([&] { return server.counters().connections > 1; }));
    EXPECT_EQ(server.counters().connections, 2);
}

TEST_F(EasyClient, SaysAgainThatAllIsSentWhenAServerThatWasRestartedGetsItAnew) {
    server.start();
    client.post("/echo", "x");
    server.stop();
    server.start();
    std::string steps;
    qvtp::CallOptions options;
    options.onConnected = [&] { steps += "connected "; };
    options.onSent = [&](const qvtp::Progress&) { steps += "sent "; };
    EXPECT_EQ(client.post("/echo", large, options).body(), large);
    EXPECT_THAT(steps, ::testing::EndsWith("connected connected sent "));
}

TEST_F(EasyClient, LetsWhatItsCallbacksThrowPass) {
    server.onPost("/read", [](const Request& request) { return Reply(std::to_string(request.body().size())); });
    server.start();
    const auto source = [](char*, std::size_t) -> std::size_t { throw std::runtime_error("no data"); };
    EXPECT_EQ(whatOf([&] { client.post("/read", qvtp::Body(source)); }), "no data");
    qvtp::CallOptions options;
    options.onSent = [](const qvtp::Progress&) { throw std::runtime_error("cancelled"); };
    std::istringstream body(large);
    EXPECT_EQ(whatOf([&] { client.post("/read", body, options); }), "cancelled");
    EXPECT_EQ(whatOf([&] { client.post("/read", "whole", options); }), "cancelled");
    EXPECT_EQ(whatOf([&] { client.notify("/none", "whole", options); }), "cancelled");
    options.onSent = nullptr;
    options.onPiece = [](std::string_view, const qvtp::Progress&) { throw std::runtime_error("enough"); };
    EXPECT_EQ(whatOf([&] { client.post("/read", "", options); }), "enough");
    EXPECT_EQ(client.post("/read", "after").body(), "5");
}

TEST_F(EasyClient, GivesTheReplyInPieces) {
    server.start();
    std::string received;
    qvtp::Progress last;
    qvtp::CallOptions options;
    options.onPiece = [&](std::string_view piece, const qvtp::Progress& progress) {
        EXPECT_FALSE(piece.empty());
        received += piece;
        last = progress;
        EXPECT_EQ(progress.bytes, received.size());
    };
    const Reply reply = client.post("/echo", large, options);
    EXPECT_EQ(reply.status(), 200);
    EXPECT_EQ(reply.body(), "");
    EXPECT_EQ(received, large);
    EXPECT_EQ(last.total, 300000);
}

TEST_F(EasyClient, GivesPiecesOfAStreamedReplyAsTheyCome) {
    std::promise<void> first;
    server.onPost("/live", [&](const Request&) {
        return Reply::stream([&](std::ostream& out) {
            out << "one" << std::flush;
            first.get_future().wait();
            out << "two";
        });
    });
    server.start();
    std::vector<std::string> pieces;
    qvtp::CallOptions options;
    options.onPiece = [&](std::string_view piece, const qvtp::Progress& progress) {
        if (pieces.empty()) first.set_value();  // the second is not written before
        pieces.emplace_back(piece);
        EXPECT_EQ(progress.total, -1);
    };
    client.post("/live", "", options);
    EXPECT_THAT(pieces, ElementsAre("one", "two"));
}

TEST_F(EasyClient, GivesTheReplyAsAStream) {
    server.start();
    std::string line;
    qvtp::CallOptions options;
    options.onStream = [&](const Reply& head, std::istream& body) {
        EXPECT_EQ(head.status(), 200);
        std::getline(body, line);
    };
    client.post("/echo", "first\nsecond\n", options);
    EXPECT_EQ(line, "first");
    EXPECT_EQ(client.post("/echo", "next").body(), "next") << "what was not read is in nobody's way";
}

TEST_F(EasyClient, ThrowsWhatAStreamHasSwallowed) {
    const RawReplies raw("QVTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\n12345");
    Client other(raw.name);
    std::ostringstream copy;
    qvtp::CallOptions options;
    options.onStream = [&](const Reply&, std::istream& body) { copy << body.rdbuf(); };
    EXPECT_EQ(kindOf([&] { other.post("/echo", "", options); }), "cut_off");
}

// ---- Time-outs and retries ----

TEST_F(EasyClient, WaitsForEachCallAsLongAsItSays) {
    server.onPost("/slow", [](const Request&) {
        std::this_thread::sleep_for(200ms);
        return Reply("slow");
    });
    server.start();
    Client hasty(name, 50ms);
    EXPECT_EQ(kindOf([&] { hasty.post("/slow"); }), "timed_out");
    qvtp::CallOptions patient;
    patient.timeout = 20s;
    EXPECT_EQ(hasty.post("/slow", "", patient).body(), "slow");
    patient.timeout = 0ms;
    EXPECT_EQ(hasty.post("/slow", "", patient).body(), "slow") << "0 is without limit";
}

TEST_F(EasyClient, HasAConnectTimeoutOfItsOwn) {
    const Quovane::Io::QvPipe first(name, true, true);  // the server does not run: it is busy with this one
    qvtp::CallOptions options;
    options.connectTimeout = 30ms;
    std::string kind;
    const auto time = elapsed([&] { kind = kindOf([&] { client.post("/echo", "", options); }); });
    EXPECT_EQ(kind, "busy");
    EXPECT_GE(time, 30ms);
    EXPECT_LT(time, 9s) << "the client's own is 10 s";
}

TEST_F(EasyClient, DoesNotWaitForServersInOneThreadForThoseOfAnother) {
    const Quovane::Io::QvPipe first(name, true, true);
    auto waiting = inBackground([&] { return kindOf([&] { Client(name, 5s).post("/echo"); }); });
    Server other(uniquePipeName());
    other.onPost("/", [](const Request&) { return Reply("at once"); });
    other.start();
    EXPECT_EQ(waiting.wait_for(PENDING), std::future_status::timeout);
    EXPECT_LT(elapsed([&] { server.start(); }), 4s);
    EXPECT_EQ(waiting.get(), "nothing");
}

TEST_F(EasyClient, TriesNothingAgainUnlessItIsTold) {
    EXPECT_EQ(qvtp::ClientOptions().retries, 0);
}

TEST_F(EasyClient, TriesAgainWhatWasNotSent) {
    qvtp::ClientOptions options;
    options.retries = 1000;
    options.retryPause = 5ms;
    Client stubborn(name, options);
    server.start();
    stubborn.post("/echo", "x");
    server.stop();
    auto reply = inBackground([&] { return stubborn.post("/echo", "again").body(); });
    EXPECT_EQ(reply.wait_for(PENDING), std::future_status::timeout);
    server.start();
    EXPECT_EQ(reply.get(), "again");
}

TEST_F(EasyClient, TriesNothingElseAgain) {
    qvtp::ClientOptions options;
    options.retries = 1000000;
    EXPECT_EQ(kindOf([&] { Client(name + "none", options).post("/echo"); }), "no_server");
    const RawReplies raw("");
    EXPECT_EQ(kindOf([&] { Client(raw.name, options).post("/echo"); }), "unknown_outcome");
}

}  // namespace
}  // namespace qvtp_test
