#include "platform/PipeContract.h"
#include "support/Holdings.h"

#include <windows.h>

#include <regex>
#include <string>
#include <thread>

// What the system's way of overlapped calls brings with it: their records and data are written to until they have
// completed, which a time-out does not wait for.
namespace qvtp_test {
namespace {

class Overlapped : public PipeContract {};

TEST_F(Overlapped, ReadThatTimedOutLeavesTheCallersBufferAlone) {
    End server, client;
    pair(server, client);
    char buffer[10] = "untouched";
    ASSERT_EQ(platform::platformRead(server.pipe, server.event, buffer, 9, 20), ReadResult::TIMED_OUT);
    ASSERT_EQ(write(client, "overwrite"), 0);
    EXPECT_EQ(readText(server), "overwrite");
    EXPECT_STREQ(buffer, "untouched");
}

TEST_F(Overlapped, ReadGoesOnWithOneThatTimedOutAlsoIfItAskedForMore) {
    End server, client;
    pair(server, client);
    std::string data;
    ASSERT_EQ(read(server, data, 100, 20), ReadResult::TIMED_OUT);
    ASSERT_EQ(write(client, "0123456789"), 0);
    EXPECT_EQ(readText(server, 4), "0123");
    EXPECT_EQ(readText(server, 4), "4567");
    EXPECT_EQ(readText(server, 4), "89");
}

TEST_F(Overlapped, ReadWaitsAgainForOneThatTimedOut) {
    End server, client;
    pair(server, client);
    std::string data;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(read(server, data, 100, 20), ReadResult::TIMED_OUT);
    ASSERT_EQ(write(client, "late"), 0);
    EXPECT_EQ(readText(server), "late");
    ASSERT_EQ(write(client, "next"), 0);
    EXPECT_EQ(readText(server), "next");
}

TEST_F(Overlapped, WriteBetweenDoesNotEndAReadThatIsGoneOnWith) {
    End server, client;
    pair(server, client);
    std::string data;
    ASSERT_EQ(read(server, data, 100, 20), ReadResult::TIMED_OUT);
    ASSERT_EQ(write(server, "x"), 0);  // its completion signals the event that the read waits on
    EXPECT_EQ(read(server, data, 100, 20), ReadResult::TIMED_OUT);
}

TEST_F(Overlapped, ReadSurvivesTheThreadThatTimedOut) {
    // The system cancels what a thread has begun when the thread ends.
    End server, client;
    pair(server, client);
    std::thread([&] {
        std::string data;
        EXPECT_EQ(read(server, data, 100, 20), ReadResult::TIMED_OUT);
    }).join();
    ASSERT_EQ(write(client, "late"), 0);
    EXPECT_EQ(readText(server), "late");
}

TEST_F(Overlapped, ReadThatWaitsSurvivesTheThreadThatTimedOut) {
    End server, client;
    pair(server, client);
    std::promise<void> timedOut, leave;
    std::thread first([&] {
        std::string data;
        EXPECT_EQ(read(server, data, 100, 20), ReadResult::TIMED_OUT);
        timedOut.set_value();
        leave.get_future().wait();
    });
    timedOut.get_future().wait();
    auto reading = inBackground([&] { return readText(server); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    leave.set_value();
    first.join();
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(write(client, "late"), 0);
    EXPECT_EQ(reading.get(), "late");
}

TEST_F(Overlapped, AcceptThatWaitsSurvivesTheThreadThatTimedOut) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    std::promise<void> timedOut, leave;
    std::thread first([&] {
        EXPECT_EQ(accept(server, 20), AcceptResult::TIMED_OUT);
        timedOut.set_value();
        leave.get_future().wait();
    });
    timedOut.get_future().wait();
    LogCapture log;
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventuallyAccepts(log));
    leave.set_value();
    first.join();
    EXPECT_EQ(accepting.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(connect(client), 0);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
}

TEST_F(Overlapped, ReadIsNotEndedByOneOfNoBytesThatTimedOut) {
    End server, client;
    pair(server, client);
    std::string data;
    ASSERT_EQ(read(server, data, 0, 20), ReadResult::TIMED_OUT);
    ASSERT_EQ(write(client, "late"), 0);
    EXPECT_EQ(readText(server), "late");
}

TEST_F(Overlapped, ReadIsNotEndedByAWriteThatCompletes) {
    End server, client;
    pair(server, client);
    ASSERT_EQ(write(server, std::string(200000, 'x')), WriteResult::TIMED_OUT);
    auto reading = inBackground([&] { return readText(server); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    EXPECT_EQ(readAll(client, 200000).size(), 200000U);  // the write completes now, and signals the event
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(write(client, "late"), 0);
    EXPECT_EQ(reading.get(), "late");
}

TEST_F(Overlapped, AcceptSurvivesTheThreadThatTimedOut) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    std::thread([&] { EXPECT_EQ(accept(server, 20), AcceptResult::TIMED_OUT); }).join();
    auto accepting = acceptInBackground(server, 5000);
    ASSERT_EQ(connect(client), 0);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
}

TEST_F(Overlapped, AcceptGoesOnWithOneThatTimedOut) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(accept(server, 20), AcceptResult::TIMED_OUT);
    LogCapture log;
    std::vector<std::string> messages;
    auto accepting = acceptInBackground(server, log, messages);
    ASSERT_TRUE(eventuallyAccepts(log));
    ASSERT_EQ(connect(client), 0);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
    EXPECT_EQ(messages.size(), 5U);
}

TEST_F(Overlapped, AcceptPrintsWhatTheSystemSaysOfAClientThatHasGone) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    client.close();
    LogCapture log;
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
    EXPECT_THAT(log.messages(),
                ElementsAre("DEBUG Calling ConnectNamedPipe.", "DEBUG ServerQvPipe_acceptPipe error = 232",
                            "DEBUG ServerQvPipe_acceptPipe retval = 0"));
}

TEST_F(Overlapped, PrintsTheHandleOfTheSystem) {
    End server;
    LogCapture log;
    ASSERT_EQ(create(server), 0);
    std::smatch match;
    const std::string line = log.messages().at(0);
    ASSERT_TRUE(std::regex_match(line, match, std::regex("DEBUG bindPipe: handle=0x([0-9a-f]+) event=0x([0-9a-f]+)")));
    const auto handle = reinterpret_cast<HANDLE>(std::stoull(match[1], nullptr, 16));
    DWORD instances = 0;
    EXPECT_TRUE(::GetNamedPipeHandleStateA(handle, nullptr, &instances, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(instances, 1U);
}

TEST_F(Overlapped, ValueIsNotUsedAgainWhenTheSystemGivesAHandleOutAgain) {
    int givenOutAgain = 0;
    for (int i = 0; i < 20; ++i) {
        End first, second;
        ASSERT_EQ(create(first), 0);
        const NativeHandle before = first.pipe;
        first.close();
        ASSERT_EQ(create(second), 0);
        EXPECT_NE(second.pipe, before);
        if (platform::printable(second.pipe) == platform::printable(before)) ++givenOutAgain;
    }
    EXPECT_GT(givenOutAgain, 0);
}

TEST_F(Overlapped, AcceptIsNotEndedByAnEventWithoutAClient) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    LogCapture log;
    auto accepting = acceptInBackground(server);
    ASSERT_TRUE(eventuallyAccepts(log));
    ::SetEvent(reinterpret_cast<HANDLE>(server.event));
    EXPECT_EQ(accepting.wait_for(PENDING), std::future_status::timeout);
    ASSERT_EQ(connect(client), 0);
    EXPECT_EQ(accepting.get(), AcceptResult::CONNECTED);
}

TEST_F(Overlapped, CloseGivesEveryHandleBack) {
    const auto useOnce = [this] {
        End server, client;
        std::string data;
        const std::string pipeName = uniquePipeName();
        ASSERT_EQ(createNamed(server, pipeName), 0);
        ASSERT_EQ(accept(server, 1), AcceptResult::TIMED_OUT);
        ASSERT_EQ(connectNamed(client, pipeName, 2000), 0);
        ASSERT_EQ(accept(server), 0);
        ASSERT_EQ(read(server, data, 10, 1), ReadResult::TIMED_OUT);
    };
    useOnce();
    const int before = Holdings::now().handles;
    for (int i = 0; i < 3 * Holdings::LATE_HANDLES; ++i) useOnce();
    EXPECT_LE(Holdings::now().handles, before + Holdings::LATE_HANDLES);
}

TEST_F(Overlapped, CloseOfAReadThatWaitsGivesEveryHandleBack) {
    int aborted = 0;
    const auto useOnce = [&] {
        End server, client;
        const std::string pipeName = uniquePipeName();
        ASSERT_EQ(createNamed(server, pipeName), 0);
        ASSERT_EQ(connectNamed(client, pipeName, 2000), 0);
        ASSERT_EQ(accept(server), 0);
        auto reading = std::async(std::launch::async, [&] { return readText(server); });
        EXPECT_EQ(reading.wait_for(10ms), std::future_status::timeout);
        platform::platformClose(server.pipe, server.event);
        const std::string text = reading.get();
        if (text == "-4") ++aborted;
        EXPECT_TRUE(text == "-4" || text == "-3") << text;
        server.forget();
    };
    useOnce();
    const int before = Holdings::now().handles;
    for (int i = 0; i < 3 * Holdings::LATE_HANDLES; ++i) useOnce();
    EXPECT_LE(Holdings::now().handles, before + Holdings::LATE_HANDLES);
    EXPECT_GT(aborted, 2 * Holdings::LATE_HANDLES);
}

}  // namespace
}  // namespace qvtp_test
