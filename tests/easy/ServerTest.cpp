#include "easy/Easy.h"

#include <fstream>
#include <sstream>

namespace qvtp_test {
namespace {

class EasyServer : public Easy {
  protected:
    /// A resource whose handler waits until it is released.
    void addBlocking() {
        server.onPost("/block", [this](const Request&) { return released.wait(), Reply("done"); });
    }
    std::future<std::string> postBlocking() {
        auto body = std::async(std::launch::async, [this] {
            try {
                return client.post("/block").body();
            } catch (const qvtp::Error& e) {
                return std::string(nameOf(e.kind()));
            }
        });
        EXPECT_TRUE(eventually([&] { return server.counters().inHandlers == 1; }));
        return body;
    }

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
};

// ---- Routes ----

TEST_F(EasyServer, ServesTheResourceItselfBeforeTheLongestPrefix) {
    const auto named = [](const std::string& route) {
        return [route](const Request& request) { return Reply(route + "|" + request.rest()); };
    };
    for (const char* const route : {"/files", "/files/*", "/files/private/*", "/files/a", "*"})
        server.onPost(route, named(route));
    server.start();
    EXPECT_EQ(client.post("/files").body(), "/files|");
    EXPECT_EQ(client.post("/files/a").body(), "/files/a|");
    EXPECT_EQ(client.post("/files/ab").body(), "/files/*|ab");
    EXPECT_EQ(client.post("/files/").body(), "/files/*|");
    EXPECT_EQ(client.post("/files/private/x/y").body(), "/files/private/*|x/y");
    EXPECT_EQ(client.post("other").body(), "*|other");
}

TEST_F(EasyServer, AnswersWith404WhereThereIsNoHandler) {
    server.start();
    const Reply reply = client.post("/nothing", "body");
    EXPECT_EQ(reply.status(), 404);
    EXPECT_EQ(reply.reason(), "Not Found");
    EXPECT_FALSE(reply.ok());
    EXPECT_EQ(client.post("/echo", "the connection goes on").status(), 200);
    client.notify("/nothing");
    EXPECT_TRUE(eventually([&] { return server.counters().notFound == 2; }));
}

TEST_F(EasyServer, AnswersWith501WhereThereIsAHandlerOfTheOtherKind) {
    server.start();
    EXPECT_EQ(client.post("/log").status(), 501);
    client.notify("/echo");
    EXPECT_TRUE(eventually([&] { return server.counters().wrongMethod == 2; }));
}

// ---- Replies ----

TEST_F(EasyServer, SendsStatusAndReasonOfAReply) {
    server.onPost("/teapot", [](const Request&) { return Reply(418, "short and stout").setReason("I'm a teapot"); });
    server.start();
    const Reply reply = client.post("/teapot");
    EXPECT_EQ(reply.status(), 418);
    EXPECT_EQ(reply.reason(), "I'm a teapot");
    EXPECT_EQ(reply.body(), "short and stout");
}

TEST_F(EasyServer, StreamsARequestIntoAStreamedReply) {
    server.onPost("/upper", [](const Request& request) {
        auto text = std::make_shared<std::stringstream>();
        for (char c = 0; request.stream().get(c);) *text << static_cast<char>(std::toupper(c));
        return Reply::stream(text);
    });
    server.start();
    const std::string body(200000, 'a');
    EXPECT_EQ(client.post("/upper", body).body(), std::string(200000, 'A'));
    std::istringstream streamed(body);
    EXPECT_EQ(client.post("/upper", streamed).body(), std::string(200000, 'A'));
}

TEST_F(EasyServer, CutsAReplyOffWhoseStreamFails) {
    server.onPost("/bad", [](const Request&) {
        auto source = std::make_shared<std::istringstream>("text");
        source->setstate(std::ios_base::badbit);
        return Reply::stream(source);
    });
    server.start();
    EXPECT_NE(kindOf([&] { EXPECT_NE(client.post("/bad").status(), 200); }), "malformed_reply");
    EXPECT_TRUE(eventually([&] { return server.counters().handlerErrors == 1; }));
}

// ---- Failures of handlers ----

TEST_F(EasyServer, AnswersWith500AndReportsWhatAHandlerThrows) {
    server.start();
    EXPECT_EQ(client.post("/throw").status(), 500);
    EXPECT_EQ(errors, "POST /throw: it rains\n");
    EXPECT_EQ(client.post("/echo", "still there").body(), "still there");
    EXPECT_EQ(server.counters().handlerErrors, 1U);
}

TEST_F(EasyServer, AnswersWith500WhateverAHandlerThrows) {
    server.onPost("/number", [](const Request&) -> Reply { throw 7; });
    server.onPost("/pipe", [](const Request&) -> Reply {  // of another server that this handler asks
        throw Quovane::Io::QvPipeException("another pipe");
    });
    server.onPost("/state", [](const Request&) -> Reply { throw Quovane::Io::IllegalStateException("a state"); });
    server.onPost("/client", [](const Request&) { return Client("no-such-pipe").post("/x"); });
    server.onPost("/status", [](const Request&) { return Reply(42); });
    server.onPost("/header", [](const Request&) { return Reply().addHeader("a b", "c"); });
    server.start();
    for (const char* const resource : {"/number", "/pipe", "/state", "/client", "/status", "/header"}) {
        EXPECT_EQ(client.post(resource).status(), 500) << resource;
    }
    EXPECT_EQ(server.counters().handlerErrors, 6U);
    EXPECT_THAT(errors, ::testing::HasSubstr("POST /pipe: another pipe"));
}

TEST_F(EasyServer, GoesOnAfterANotifyHandlerHasThrown) {
    server.onNotify("/throw", [](const Request&) { throw std::runtime_error("it snows"); });
    server.start();
    client.notify("/throw");
    EXPECT_TRUE(eventually([&] { return server.counters().handlerErrors == 1; }));
    EXPECT_EQ(errors, "NOTIFY /throw: it snows\n");
    EXPECT_EQ(client.post("/echo", "x").body(), "x");
}

TEST_F(EasyServer, LetsTheFailureOfAConnectionPassItsHandlers) {
    std::promise<std::string> thrown;
    server.onPost("/read", [&](const Request& request) {
        try {
            return Reply(request.body());
        } catch (const std::exception&) {
            thrown.set_value("thrown");
            throw;
        }
    });
    server.start();
    {
        Quovane::Io::QvPipe raw(name, true, true);
        RawServer::write(raw, "POST /read QVTP/1.0\r\nContent-Length: 10\r\n\r\nhalf");
        ASSERT_TRUE(eventually([&] { return server.counters().inHandlers == 1; }));
    }
    EXPECT_EQ(thrown.get_future().get(), "thrown");
    EXPECT_TRUE(eventually([&] { return server.counters().inHandlers == 0; }));
    EXPECT_EQ(server.counters().handlerErrors, 0U);
}

TEST_F(EasyServer, DropsWhatItsErrorHandlerThrows) {
    server.onError([](const Request&, const std::string&) { throw std::runtime_error("worse"); });
    server.start();
    EXPECT_EQ(client.post("/throw").status(), 500);
}

// ---- Limits, peers, counters ----

TEST_F(EasyServer, KeepsToItsLimits) {
    qvtp::ServerOptions options;
    options.limits.bodyBytes = 10;
    const std::string narrowName = uniquePipeName();
    Server narrow(narrowName, options);
    narrow.onPost("/echo", [](const Request& request) { return Reply(request.body()); });
    narrow.start();
    Client other(narrowName);
    EXPECT_EQ(other.post("/echo", "0123456789").status(), 200);
    EXPECT_EQ(other.post("/echo", "0123456789a").status(), 413);
    std::istringstream streamed("0123456789a");
    EXPECT_EQ(other.post("/echo", streamed).status(), 413);
    EXPECT_EQ(narrow.counters().handlerErrors, 0U);
}

TEST_F(EasyServer, KnowsItsPeer) {
    server.onPost("/peer", [](const Request& request) { return Reply(std::to_string(request.peer().processId)); });
    server.start();
    EXPECT_EQ(client.post("/peer").body(), std::to_string(Quovane::Io::currentProcessId()));
}

TEST_F(EasyServer, CountsWhatItDoes) {
    server.start();
    client.post("/echo");
    client.post("/nothing");
    client.notify("/log", "x");
    logged.get_future().wait();
    EXPECT_TRUE(eventually([&] { return server.counters().inHandlers == 0; }));
    const qvtp::ServerCounters counters = server.counters();
    EXPECT_EQ(counters.posts, 2U);
    EXPECT_EQ(counters.notifies, 1U);
    EXPECT_EQ(counters.notFound, 1U);
    // Those for POST are not those for NOTIFY. One that has just begun may not be counted yet.
    EXPECT_TRUE(eventually([&] { return server.counters().connections == 2; }));
    server.stop();
    EXPECT_EQ(server.counters().posts, 2U);
    EXPECT_EQ(server.counters().connections, 0);
}

TEST_F(EasyServer, HasWorkersForTheMachine) {
    EXPECT_GE(server.counters().workers, 16);
    EXPECT_LE(server.counters().workers, 256);
    qvtp::ServerOptions options;
    options.workers = 7;
    EXPECT_EQ(Server(uniquePipeName(), options).counters().workers, 7);
}

TEST_F(EasyServer, LetsSilentClientsMakeRoom) {
    qvtp::ServerOptions options;
    options.workers = 3;
    const std::string smallName = uniquePipeName();
    Server small(smallName, options);
    small.onPost("/echo", [](const Request& request) { return Reply(request.body()); });
    small.start();
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 10; ++i) clients.push_back(std::make_unique<Client>(smallName, 5s));
    for (int round = 0; round < 2; ++round) {
        for (const auto& each : clients) EXPECT_EQ(each->post("/echo", "x").body(), "x");
    }
}

// ---- Starting and stopping, in whatever order ----

TEST_F(EasyServer, LetsClientsWaitUntilItStarts) {
    auto reply = inBackground([&] { return client.post("/echo", "early").body(); });
    EXPECT_EQ(reply.wait_for(PENDING), std::future_status::timeout);
    server.start();
    EXPECT_EQ(reply.get(), "early");
}

TEST_F(EasyServer, StopsBeforeItsStartTwiceAndAfterIt) {
    EXPECT_TRUE(server.stop());
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(kindOf([&] { client.post("/echo"); }), "no_server");
    server.start();
    server.start();
    EXPECT_TRUE(server.isRunning());
    EXPECT_EQ(client.post("/echo", "x").body(), "x");
    server.stop(1s);
    EXPECT_FALSE(server.isRunning());
    EXPECT_TRUE(server.stop(1s));
    server.start();
    EXPECT_EQ(client.post("/echo", "x").body(), "x");
}

TEST_F(EasyServer, IsDestroyedWhileItRuns) {
    const std::string other = uniquePipeName();
    for (int i = 0; i < 20; ++i) Server(other).start();
    EXPECT_EQ(kindOf([&] { Client(other).post("/echo"); }), "no_server");
}

TEST_F(EasyServer, DrainsWhatHasBegun) {
    addBlocking();
    server.start();
    auto body = postBlocking();
    auto drained = inBackground([&] { return server.stop(20s); });
    EXPECT_EQ(drained.wait_for(PENDING), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(body.get(), "done");
    EXPECT_TRUE(drained.get());
}

TEST_F(EasyServer, ReportsADrainThatHadNoTime) {
    addBlocking();
    server.start();
    auto body = postBlocking();
    auto drained = std::async(std::launch::async, [&] { return server.stop(20ms); });
    EXPECT_EQ(body.get(), "unknown_outcome");
    release.set_value();
    EXPECT_FALSE(drained.get());
}

TEST_F(EasyServer, EndsADrainByAStopThatDoesNotWait) {
    addBlocking();
    server.start();
    auto body = postBlocking();
    auto drained = inBackground([&] { return server.stop(0ms); });
    EXPECT_EQ(drained.wait_for(PENDING), std::future_status::timeout);
    auto stopped = std::async(std::launch::async, [&] { return server.stop(); });
    EXPECT_EQ(body.get(), "unknown_outcome");
    release.set_value();
    EXPECT_FALSE(drained.get());
    EXPECT_FALSE(stopped.get());
}

TEST_F(EasyServer, IsStoppedByAHandlerWithoutWaiting) {
    server.onNotify("/stop", [&](const Request&) { EXPECT_FALSE(server.stop(20s)); });
    server.start();
    client.notify("/stop");
    EXPECT_TRUE(eventually([&] { return !server.isRunning(); }));
    server.start();
    EXPECT_EQ(client.post("/echo", "again").body(), "again");
}

TEST_F(EasyServer, IsNotStartedByAHandler) {
    std::promise<std::string> kinds;
    server.onNotify("/start", [&](const Request&) {
        kinds.set_value(kindOf([&] { server.start(); }) + " " + kindOf([&] { server.runUntilSignal(); }) + " " +
                        kindOf([&] { server.onPost("/x", nullptr); }));
    });
    server.start();
    client.notify("/start");
    EXPECT_EQ(kinds.get_future().get(), "misuse misuse misuse");
}

TEST_F(EasyServer, IsStoppedWhileItRunsUntilASignal) {
    auto run = std::async(std::launch::async, [&] { return server.runUntilSignal(); });
    EXPECT_TRUE(eventually([&] { return server.isRunning(); }));
    server.stop();
    run.get();
    auto again = std::async(std::launch::async, [&] { return server.runUntilSignal(); });
    EXPECT_TRUE(eventually([&] { return server.isRunning(); }));
    EXPECT_EQ(client.post("/echo", "x").body(), "x");
    server.stop();
    again.get();
}

TEST_F(EasyServer, IsStoppedByAHandlerWhileItRunsUntilASignal) {
    server.onNotify("/stop", [&](const Request&) { server.stop(); });
    auto run = std::async(std::launch::async, [&] { return server.runUntilSignal(); });
    EXPECT_TRUE(eventually([&] { return server.isRunning(); }));
    client.notify("/stop");
    run.get();
    EXPECT_EQ(kindOf([&] { client.post("/echo"); }), "no_server");
}

// It takes the whole wait of a stop until a handler is left alone.
TEST_F(EasyServer, ReplacesAHandlerWhileTheFormerOneIsLeftAlone) {
    auto own = std::make_shared<std::string>("former");
    const std::weak_ptr<std::string> seen = own;
    std::promise<std::string> reported;
    server.onPost("/block", [released = released, own = std::move(own)](const Request&) -> Reply {
        released.wait();
        throw std::runtime_error(*own);
    });
    server.onError([&](const Request&, const std::string& text) { reported.set_value("former of " + text); });
    server.start();
    auto body = postBlocking();
    server.stop();
    EXPECT_EQ(body.get(), "unknown_outcome");
    server.onPost("/block", [](const Request&) { return Reply("new"); });
    server.onError([&](const Request&, const std::string&) { reported.set_value("new"); });
    server.start();
    EXPECT_EQ(client.post("/block").body(), "new");
    EXPECT_TRUE(eventually([&] { return server.counters().inHandlers == 1; })) << "the new one returns after its reply";
    EXPECT_EQ(server.counters().posts, 2U);
    ASSERT_FALSE(seen.expired()) << "it is still in use";
    release.set_value();
    EXPECT_EQ(reported.get_future().get(), "former of former");
    EXPECT_TRUE(eventually([&] { return server.counters().inHandlers == 0 && seen.expired(); }));
    EXPECT_EQ(server.counters().handlerErrors, 1U);
}

TEST_F(EasyServer, IsStartedAndStoppedByManyThreadsAtOnce) {
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.push_back(std::async(std::launch::async, [&, thread] {
            for (int i = 0; i < 50; ++i) {
                try {
                    if ((thread + i) % 2 == 0) server.start();
                    server.stop(thread == 0 ? 1ms : -1ms);
                } catch (const qvtp::Error& e) {
                    EXPECT_EQ(e.kind(), ErrorKind::name_taken) << e.what();  // by the life before, which is just ending
                }
            }
        }));
    }
    for (auto& thread : threads) thread.get();
    server.stop();
    server.start();
    EXPECT_EQ(client.post("/echo", "x").body(), "x");
}

}  // namespace
}  // namespace qvtp_test
