#include "platform/PipeContract.h"

namespace qvtp_test {
namespace {

class ConnectContract : public PipeContract {};

TEST_F(ConnectContract, FailsAtOnceForANameThatDoesNotExist) {
    LogCapture log;
    End client;
    int result = -1;
    EXPECT_LT(elapsed([&] { result = connect(client, 20000); }), AT_ONCE);
    EXPECT_EQ(result, ConnectResult::CANNOT_OPEN);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Could not open pipe. GLE=2"));
    EXPECT_FALSE(client.isOpen());
    EXPECT_EQ(client.event, INVALID_NATIVE_HANDLE);
}

TEST_F(ConnectContract, SucceedsBeforeTheServerAccepts) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    EXPECT_EQ(connect(client), ConnectResult::CONNECTED);
    EXPECT_THAT(withoutHandles(log.messages()),
                ElementsAre("DEBUG CreateFile - " + path() + " handle=0xH GetLastError=0"));
    EXPECT_NE(client.event, INVALID_NATIVE_HANDLE);
}

TEST_F(ConnectContract, PrintsTheHandleThatItReturns) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    ASSERT_EQ(connect(client), 0);
    EXPECT_TRUE(log.contains(platform::text("DEBUG CreateFile - ", path(), " handle=", platform::printable(client.pipe),
                                            " GetLastError=0")));
}

TEST_F(ConnectContract, TimesOutWhenTheOnlyInstanceIsTaken) {
    End server, first, second;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(first), 0);
    LogCapture log;
    int result = -1;
    EXPECT_GE(elapsed([&] { result = connect(second, 200); }), 195ms);
    EXPECT_EQ(result, ConnectResult::TIMED_OUT);
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG Waiting for named pipe.",
                                            "DEBUG Could not open pipe " + path() + " after 200 milliseconds."));
}

TEST_F(ConnectContract, StaysBusyWhenTheClientThatWasNeverAcceptedHasGone) {
    End server, first, second;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(first), 0);
    first.close();
    EXPECT_EQ(connect(second, 100), ConnectResult::TIMED_OUT);
}

TEST_F(ConnectContract, WaitsWithoutLimitUntilTheServerAccepts) {
    End server, next, first, second;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(first), 0);
    LogCapture log;
    auto waiting = inBackground([&] { return connect(second, 0); });
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Waiting for named pipe."); }));
    EXPECT_EQ(waiting.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(accept(server), 0);
    ASSERT_EQ(createNext(next), 0);
    EXPECT_EQ(waiting.get(), ConnectResult::CONNECTED);
}

TEST_F(ConnectContract, PrintsAWaitWithoutLimitAsAnUnsignedNumber) {
    if (!backend::releasesWaitersOnClose()) GTEST_SKIP() << "waiters leave only by their time-out here";
    End server, first, second;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(first), 0);
    LogCapture log;
    auto waiting = std::async(std::launch::async, [&] { return connect(second, 0); });
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Waiting for named pipe."); }));
    server.close();
    EXPECT_EQ(waiting.get(), ConnectResult::TIMED_OUT);
    EXPECT_TRUE(log.contains("DEBUG Could not open pipe " + path() + " after 4294967295 milliseconds."));
}

TEST_F(ConnectContract, TakesANegativeTimeoutAsPracticallyUnlimited) {
    End server, next, first, second;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(first), 0);
    LogCapture log;
    auto waiting = inBackground([&] { return connect(second, -5); });
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Waiting for named pipe."); }));
    EXPECT_EQ(waiting.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(accept(server), 0);
    ASSERT_EQ(createNext(next), 0);
    EXPECT_EQ(waiting.get(), ConnectResult::CONNECTED);
}

TEST_F(ConnectContract, FreesThePlaceOfAnAcceptedClient) {
    End server, first, second;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(first), 0);
    ASSERT_EQ(accept(server), 0);
    const int expected = backend::freesPlaceOnAccept() ? ConnectResult::CONNECTED : ConnectResult::TIMED_OUT;
    EXPECT_EQ(connect(second, 100), expected);
}

TEST_F(ConnectContract, LetsOneOfTwoWaitersInAndTheOtherTimeOut) {
    End server, next, first, second, third;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(first), 0);
    LogCapture log;
    auto one = std::async(std::launch::async, [&] { return connect(second, 1000); });
    auto other = std::async(std::launch::async, [&] { return connect(third, 1000); });
    ASSERT_TRUE(eventually([&] { return log.count("DEBUG Waiting for named pipe.") >= 2; }));
    ASSERT_EQ(accept(server), 0);
    ASSERT_EQ(createNext(next), 0);
    const int results = one.get() * 10 + other.get();
    EXPECT_TRUE(results == 1 || results == 10) << results;
}

TEST_F(ConnectContract, ReleasesWaitersAsTimedOutWhenTheServerCloses) {
    End server, first, second;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(first), 0);
    LogCapture log;
    const int timeoutMs = backend::releasesWaitersOnClose() ? 60000 : 500;
    auto waiting = std::async(std::launch::async, [&] { return connect(second, timeoutMs); });
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Waiting for named pipe."); }));
    server.close();
    EXPECT_EQ(waiting.get(), ConnectResult::TIMED_OUT);
}

TEST_F(ConnectContract, FindsNoNameOnceAServerWasClosedInItsAccept) {
    End server, first;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG ServerQvPipe_acceptPipe error = 997"); }));
    platform::platformCloseServer(server.pipe, server.event);
    EXPECT_EQ(accepting.get(), AcceptResult::ABORTED);
    EXPECT_EQ(connect(first, 60000), ConnectResult::CANNOT_OPEN);
}

TEST_F(ConnectContract, FindsANameWithoutInstancesBusyWhileAnAcceptedEndIsOpen) {
    End server, next, first, second;
    pair(server, first);
    ASSERT_EQ(createNext(next), 0);
    next.close();
    EXPECT_GE(elapsed([&] { EXPECT_EQ(connect(second, 150), ConnectResult::TIMED_OUT); }), 145ms);
}

TEST_F(ConnectContract, FindsNoNameOnceAllServerEndsAreClosed) {
    End server, first, second;
    pair(server, first);
    server.close();
    EXPECT_EQ(connect(second, 5000), ConnectResult::CANNOT_OPEN);
}

struct Direction {
    bool serverReads, serverWrites, clientReads, clientWrites;
    int result;
};

class ConnectDirection : public PipeContract, public ::testing::WithParamInterface<Direction> {};

TEST_P(ConnectDirection, IsCheckedAgainstTheServer) {
    const Direction& d = GetParam();
    End server, client;
    ASSERT_EQ(create(server, d.serverReads, d.serverWrites), 0);
    LogCapture log(LogCapture::LoggingLevel::INFO);
    EXPECT_EQ(connect(client, 2000, d.clientReads, d.clientWrites), d.result);
    EXPECT_THAT(log.messages(), IsEmpty());
}

class RefusedDirection : public ConnectDirection {};

TEST_P(RefusedDirection, IsRefusedAtOnceAlsoWhenTheServerIsBusy) {
    if (!backend::refusesWrongDirectionWhenBusy()) GTEST_SKIP() << "waits for a free instance first here";
    const Direction& d = GetParam();
    End server, first, client;
    ASSERT_EQ(create(server, d.serverReads, d.serverWrites), 0);
    ASSERT_EQ(connect(first, 2000, d.serverWrites, d.serverReads), 0);
    EXPECT_LT(elapsed([&] { EXPECT_EQ(connect(client, 20000, d.clientReads, d.clientWrites), d.result); }), AT_ONCE);
}

/// Such as "ServerR_ClientRW".
std::string nameOf(const ::testing::TestParamInfo<Direction>& info) {
    const Direction& d = info.param;
    const auto access = [](bool reads, bool writes) { return std::string(reads ? "R" : "") + (writes ? "W" : ""); };
    return "Server" + access(d.serverReads, d.serverWrites) + "_Client" + access(d.clientReads, d.clientWrites);
}

constexpr int OK = ConnectResult::CONNECTED;
constexpr int DENIED = ConnectResult::ACCESS_DENIED;
constexpr Direction REFUSED[] = {{true, false, true, false, DENIED},
                                 {true, false, true, true, DENIED},
                                 {false, true, false, true, DENIED},
                                 {false, true, true, true, DENIED}};
constexpr Direction ALLOWED[] = {{true, false, false, true, OK},
                                 {false, true, true, false, OK},
                                 {true, true, true, false, OK},
                                 {true, true, false, true, OK},
                                 {true, true, true, true, OK}};
INSTANTIATE_TEST_SUITE_P(Refused, ConnectDirection, ::testing::ValuesIn(REFUSED), nameOf);
INSTANTIATE_TEST_SUITE_P(Allowed, ConnectDirection, ::testing::ValuesIn(ALLOWED), nameOf);
INSTANTIATE_TEST_SUITE_P(Busy, RefusedDirection, ::testing::ValuesIn(REFUSED), nameOf);

// ---- Names ----

TEST_F(ConnectContract, IgnoresTheCaseOfAsciiLetters) {
    End server, client;
    ASSERT_EQ(createNamed(server, name + "-Aa"), 0);
    EXPECT_EQ(connectNamed(client, name + "-aA", 2000), ConnectResult::CONNECTED);
}

TEST_F(ConnectContract, TakesSlashAndBackslashAsOne) {
    End server, client;
    ASSERT_EQ(createNamed(server, name + "/b"), 0);
    EXPECT_EQ(connectNamed(client, name + "\\b", 2000), ConnectResult::CONNECTED);
}

TEST_F(ConnectContract, ComparesBytesAbove127Exactly) {
    End server, client;
    ASSERT_EQ(createNamed(server, name + "\xC3\x84"), 0);
    EXPECT_EQ(connectNamed(client, name + "\xC3\xA4", 200), ConnectResult::CANNOT_OPEN);
    EXPECT_EQ(connectNamed(client, name + "\xC3\x84", 2000), ConnectResult::CONNECTED);
}

struct OddName {
    const char* description;
    const char* ending;
};

class PipeNames : public PipeContract, public ::testing::WithParamInterface<OddName> {};

TEST_P(PipeNames, WorkOnBothEnds) {
    const std::string odd = name + GetParam().ending;
    End server, client;
    ASSERT_EQ(createNamed(server, odd), 0);
    ASSERT_EQ(connectNamed(client, odd, 2000), ConnectResult::CONNECTED);
    ASSERT_EQ(accept(server), 0);
    EXPECT_EQ(write(client, "x"), 0);
    EXPECT_EQ(readText(server), "x");
}

constexpr OddName ODD_NAMES[] = {
    {"Backslash", "\\sub"},   {"Blanks", " a blank "}, {"Punctuation", "<>*?:\"|"}, {"PercentSign", "%41"},
    {"Tilde", "~"},           {"Tab", "\t"},           {"LockSuffix", "a.lock"},    {"SocketSuffix", "a.sock"},
    {"Euro", "\xE2\x82\xAC"}, {"NotUtf8", "\xFF\xFE"}};
INSTANTIATE_TEST_SUITE_P(Odd, PipeNames, ::testing::ValuesIn(ODD_NAMES),
                         [](const auto& odd) { return std::string(odd.param.description); });

TEST_F(ConnectContract, DoesNotTakeAnEncodedNameForTheNameItself) {
    End server, client;
    ASSERT_EQ(createNamed(server, name + "%41"), 0);
    EXPECT_EQ(connectNamed(client, name + "A", 200), ConnectResult::CANNOT_OPEN);
}

TEST_F(ConnectContract, KeepsOrRemovesTrailingBlanksAndDots) {
    const int expected = backend::keepsNamesAsTheyAre() ? ConnectResult::CANNOT_OPEN : ConnectResult::CONNECTED;
    for (const std::string& other : {name + ".", name + " ", name + ". ", "x/../" + name}) {
        End server, client;
        ASSERT_EQ(create(server), 0);
        EXPECT_EQ(connectNamed(client, other, 200), expected) << other;
    }
}

TEST_F(ConnectContract, AllowsNamesUpToTheDocumentedLimit) {
    const std::size_t size = 247;
    const std::string longest = name + std::string(size - name.size(), 'n');
    const std::string other = longest.substr(0, size - 1) + "m";
    End server, client, stranger;
    ASSERT_EQ(createNamed(server, longest), 0);
    EXPECT_EQ(connectNamed(stranger, other, 200), ConnectResult::CANNOT_OPEN);
    EXPECT_EQ(connectNamed(client, longest, 2000), ConnectResult::CONNECTED);
}

TEST_F(ConnectContract, RefusesALongerName) {
    const std::string tooLong(static_cast<std::size_t>(backend::tooLongName()), 'n');
    LogCapture log;
    End server, client;
    EXPECT_EQ(createNamed(server, tooLong), 206);
    EXPECT_EQ(connectNamed(client, tooLong, 2000), ConnectResult::CANNOT_OPEN);
    EXPECT_THAT(log.messages(),
                ElementsAre("ERROR CreateNamedPipe failed: 206",
                            platform::text("ERROR Could not open pipe. GLE=", backend::longNameOpenError())));
}

TEST_F(ConnectContract, RefusesToServeTheEmptyName) {
    End server;
    LogCapture log;
    EXPECT_EQ(createNamed(server, std::string()), backend::emptyNameError());
    EXPECT_THAT(log.messages(),
                ElementsAre(platform::text("ERROR CreateNamedPipe failed: ", backend::emptyNameError())));
    EXPECT_FALSE(server.isOpen());
}

TEST_F(ConnectContract, OpensTheEmptyNameOnlyWhereItIsADirectory) {
    End client;
    LogCapture log;
    const int result = connectNamed(client, std::string(), 2000);
    if (backend::opensTheEmptyName()) {
        EXPECT_EQ(result, ConnectResult::CONNECTED);
    } else {
        EXPECT_EQ(result, ConnectResult::CANNOT_OPEN);
        EXPECT_THAT(log.messages(), ElementsAre("ERROR Could not open pipe. GLE=123"));
    }
}

}  // namespace
}  // namespace qvtp_test
