// Every kind of error, produced by what produces it in an application.

#include "easy/Easy.h"

#include <fstream>

namespace qvtp_test {
namespace {

using ::testing::HasSubstr;

class EasyError : public Easy {};

// ---- Nothing was sent ----

TEST_F(EasyError, IsNoServerIfNobodyServesTheName) {
    Client other(uniquePipeName());
    EXPECT_EQ(kindOf([&] { other.post("/echo"); }), "no_server");
    EXPECT_EQ(kindOf([&] { other.notify("/log"); }), "no_server");
}

TEST_F(EasyError, IsBusyIfTheServerAcceptsNobodyInTime) {
    // It does not run: one client is waiting, and the next one is not even that.
    const Quovane::Io::QvPipe first(name, true, true);
    Client second(name, 50ms);
    EXPECT_EQ(kindOf([&] { second.post("/echo"); }), "busy");
    EXPECT_THAT(errorOf([&] { second.post("/echo"); })->what(), ::testing::HasSubstr("connecting to pipe. Pipe \""));
}

TEST_F(EasyError, IsDeniedIfAPostGoesToAServerThatOnlyReads) {
    RawServer reader(uniquePipeName("reader"), false);
    const std::string other = uniquePipeName();
    const Quovane::Io::ServerQvPipe onlyReads(other, true, false);
    Client poster(other);
    EXPECT_EQ(kindOf([&] { poster.post("/echo"); }), "denied");
}

TEST_F(EasyError, IsNotSentIfTheServerHasGoneSinceTheLastCall) {
    server.start();
    EXPECT_EQ(client.post("/echo", "x").body(), "x");
    server.stop();
    EXPECT_EQ(kindOf([&] { client.post("/echo", "y"); }), "not_sent");
    EXPECT_EQ(kindOf([&] { client.post("/echo", "y"); }), "no_server") << "no connection is left that could break";
}

// ---- The server may have acted ----

TEST_F(EasyError, IsTimedOutIfTheHandlerDoesNotAnswerInTime) {
    std::promise<void> release;
    server.onPost("/never", [&](const Request&) { return release.get_future().wait(), Reply(); });
    server.start();
    qvtp::CallOptions options;
    options.timeout = 50ms;
    EXPECT_EQ(kindOf([&] { client.post("/never", "", options); }), "timed_out");
    release.set_value();
}

TEST_F(EasyError, IsUnknownOutcomeIfTheServerHangsUpInsteadOfAnswering) {
    const RawReplies raw("");
    Client other(raw.name);
    EXPECT_EQ(kindOf([&] { other.post("/echo", "x"); }), "unknown_outcome");
}

TEST_F(EasyError, IsUnknownOutcomeIfTheServerHangsUpWithinTheHeadOfItsReply) {
    const RawReplies raw("QVTP/1.0 200 OK\r\nContent-");
    Client other(raw.name);
    EXPECT_EQ(kindOf([&] { other.post("/echo", "x"); }), "unknown_outcome");
}

TEST_F(EasyError, IsUnknownOutcomeIfTheStreamOfTheBodyFails) {
    server.start();
    std::ifstream directory(".");  // opens where the system lets it, and cannot be read
    directory.setstate(std::ios_base::badbit);
    EXPECT_EQ(kindOf([&] { client.post("/echo", directory); }), "unknown_outcome");
}

TEST_F(EasyError, IsMalformedReplyIfTheReplyIsNone) {
    for (const char* const reply : {
             "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",     //
             "QVTP/1.0 fine OK\r\nContent-Length: 0\r\n\r\n",    //
             "QVTP/1.0 20 OK\r\nContent-Length: 0\r\n\r\n",      //
             "QVTP/1.0 200 OK\r\n\r\n",                          //
             "QVTP/1.0 200 OK\r\nContent-Length: many\r\n\r\n",  //
             "QVTP/1.0 200 OK\r\nContent-Length: -1\r\n\r\n",    //
             "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nmany\r\nx\r\n",
         }) {
        const RawReplies raw(reply);
        Client other(raw.name);
        EXPECT_EQ(kindOf([&] { other.post("/echo", "x"); }), "malformed_reply") << reply;
    }
}

TEST_F(EasyError, IsCutOffIfTheReplyEndsBeforeItsLength) {
    const RawReplies raw("QVTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\n12345");
    Client other(raw.name);
    EXPECT_EQ(kindOf([&] { other.post("/echo", "x"); }), "cut_off");
}

TEST_F(EasyError, IsCutOffWhereverAChunkedReplyEnds) {
    const std::string head = "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string body = "5\r\n12345\r\n3\r\nabc\r\n0\r\n\r\n";
    for (std::size_t length = 0; length < body.size(); ++length) {
        const RawReplies raw(head + body.substr(0, length));
        Client other(raw.name);
        EXPECT_EQ(kindOf([&] { other.post("/echo", "x"); }), "cut_off") << length;
    }
    const RawReplies raw(head + body);
    Client other(raw.name);
    EXPECT_EQ(other.post("/echo", "x").body(), "12345abc");
}

TEST_F(EasyError, IsCutOffIfAHandlerThrowsWhileItWritesItsReply) {
    server.onPost("/half", [](const Request&) {
        return Reply::stream([](std::ostream& out) {
            out << "half" << std::flush;
            throw std::runtime_error("no more");
        });
    });
    server.start();
    EXPECT_EQ(kindOf([&] { client.post("/half"); }), "cut_off");
    EXPECT_TRUE(eventually([&] { return server.counters().inHandlers == 0; }));
    EXPECT_EQ(errors, "POST /half: no more\n");
}

// ---- The program ----

TEST_F(EasyError, IsClosedIfAnotherThreadClosesTheClientDuringACall) {
    std::promise<void> release;
    server.onPost("/never", [&](const Request&) { return release.get_future().wait(), Reply(); });
    server.start();
    auto kind = std::async(std::launch::async, [&] { return kindOf([&] { client.post("/never"); }); });
    ASSERT_TRUE(eventually([&] { return server.counters().inHandlers == 1; }));
    client.close();
    EXPECT_EQ(kind.get(), "closed");
    EXPECT_EQ(kindOf([&] { client.post("/echo"); }), "closed");
    release.set_value();
}

TEST_F(EasyError, IsMisuseForAResourceThatCannotBeSent) {
    for (const char* const resource : {"", "/a b", " /a", "/a\n", "/a\r\nX: 1", "/a\t", "/a\x7f"}) {
        EXPECT_EQ(kindOf([&] { client.post(resource); }), "misuse") << resource;
        EXPECT_EQ(kindOf([&] { client.notify(resource); }), "misuse") << resource;
    }
    EXPECT_EQ(kindOf([&] { client.post(std::string("/a\0b", 4)); }), "misuse");
}

TEST_F(EasyError, IsMisuseForHeadersThatCannotBeSent) {
    for (const auto& [key, value] : qvtp::Headers{{"", "x"},
                                                  {"A B", "x"},
                                                  {"A:", "x"},
                                                  {"\xc3\xa4", "x"},
                                                  {"A", "x\r\nB: y"},
                                                  {"content-length", "5"},
                                                  {"Transfer-Encoding", "chunked"}}) {
        qvtp::CallOptions options;
        options.headers = {{key, value}};
        EXPECT_EQ(kindOf([&] { client.post("/echo", "", options); }), "misuse") << key;
    }
}

TEST_F(EasyError, IsMisuseForANameThatNoPipeCanHave) {
    for (const std::string& bad : {std::string(), std::string(300, 'n')}) {
        EXPECT_EQ(kindOf([&] { Client(bad).post("/echo"); }), "misuse");
        EXPECT_EQ(kindOf([&] { Server other(bad); }), "misuse");
    }
}

TEST_F(EasyError, IsNameTakenIfAnotherServerHasTheName) {
    EXPECT_EQ(kindOf([&] { Server other(name); }), "name_taken");
    server.start();
    EXPECT_EQ(kindOf([&] { Server other(name); }), "name_taken");
    server.stop();
    EXPECT_EQ(kindOf([&] { Server other(name); }), "nothing");
}

TEST_F(EasyError, IsNameTakenForAServerThatStartsAgainAndComesTooLate) {
    server.stop();
    const Server other(name);
    EXPECT_EQ(kindOf([&] { server.start(); }), "name_taken");
    EXPECT_FALSE(server.isRunning());
}

// ---- What it says ----

TEST_F(EasyError, NamesTheCallThePipeItsPathAndWhatToDo) {
    const std::string missing = uniquePipeName("missing");
    const auto error = errorOf([&] { Client(missing).post("/echo"); });
    ASSERT_TRUE(error);
    const std::string path = Quovane::Io::findPipeFacts(missing).path;
    EXPECT_EQ(error->what(), "POST /echo failed. Pipe \"" + missing + "\" (" + path +
                                 "). There is no server: start it, as the same user and with the same QVTP_PIPE_DIR.");
}

/// Of mistakes too. What the library says without a full stop gets one.
TEST_F(EasyError, SaysWhatIsWrongWithACallBeforeThePipe) {
    const auto textOf = [&](const std::string& resource, const qvtp::Headers& headers,
                            const std::string& pipe) -> std::string {
        qvtp::CallOptions options;
        options.headers = headers;
        return errorOf([&] { Client(pipe).post(resource, "", options); })->what();
    };
    const std::string pipe = uniquePipeName("missing");
    const std::string end =
        " Pipe \"" + pipe + "\" (" + Quovane::Io::findPipeFacts(pipe).path + "). This is a mistake in the program.";
    EXPECT_EQ(textOf("", {}, pipe), "POST  failed. It has no resource." + end);
    EXPECT_EQ(textOf("/a b", {}, pipe),
              "POST /a b failed. A resource has no blanks and no control characters: percentEncode() its parts." + end);
    EXPECT_EQ(textOf("/a\tb", {}, pipe), textOf("/a b", {}, pipe).replace(7, 1, "\t"));
    EXPECT_EQ(textOf("/", {{"A b", ""}}, pipe),
              "POST / failed. The header \"A b\" has no possible name or value, or is the library's own." + end);
}

TEST_F(EasyError, IsAStandardExceptionWithAKind) {
    const std::exception& error = qvtp::Error(ErrorKind::busy, "text");
    EXPECT_STREQ(error.what(), "text");
}

TEST(EasyErrorKind, IsSafeToRetryOnlyIfNothingWasSent) {
    std::string safe;
    for (int kind = 0; kind <= static_cast<int>(ErrorKind::bad_directory); ++kind) {
        const qvtp::Error error(static_cast<ErrorKind>(kind), "");
        if (error.safe_to_retry()) safe += std::string(nameOf(error.kind())) + " ";
    }
    EXPECT_EQ(safe, "no_server busy denied not_sent bad_directory ");
}

}  // namespace
}  // namespace qvtp_test
