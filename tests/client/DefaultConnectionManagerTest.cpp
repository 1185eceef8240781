#include "client/DefaultConnectionManager.h"

#include "common/System.h"
#include "common/Text.h"
#include "support/LogCapture.h"
#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <regex>
#include <set>
#include <thread>

namespace qvtp_test {
namespace {

namespace System = Quovane::Internal::Qvtp::System;
using Quovane::Internal::Qvtp::DefaultConnectionManager;
using Quovane::Internal::Qvtp::text;
using Quovane::Io::QvPipe;
using namespace std::chrono_literals;
using ::testing::ElementsAre;

constexpr int NEVER_STALE = 1000000;

/// The messages with every "Binding-7" as "Binding-N".
std::vector<std::string> withoutNumbers(const std::vector<std::string>& messages) {
    std::vector<std::string> result;
    for (const std::string& message : withoutHandles(messages)) {
        result.push_back(std::regex_replace(message, std::regex("Binding-[0-9]+"), "Binding-N"));
    }
    return result;
}

/// The numbers in the messages that end in a binding after this text.
std::vector<int> bindingsBehind(const std::string& text, const LogCapture& log) {
    std::vector<int> numbers;
    for (const std::string& message : log.messages()) {
        std::smatch match;
        if (std::regex_search(message, match, std::regex(text + "Binding-([0-9]+)\\)?$"))) {
            numbers.push_back(std::stoi(match[1]));
        }
    }
    return numbers;
}

/// A pool and a server that accepts whatever it connects.
class PipePool : public ::testing::Test {
  protected:
    QvPipe* get(const std::string& mode = "rw") { return manager.getPipe(name, mode); }

    /// A pipe of the pool and the server's end of it.
    QvPipe* connect(const std::string& mode = "rw") {
        QvPipe* const pipe = get(mode);
        accepted.push_back(server.accept());
        return pipe;
    }

    const std::string name = uniquePipeName();
    RawServer server{name};
    std::vector<std::unique_ptr<QvPipe>> accepted;
    DefaultConnectionManager manager{2000, NEVER_STALE};
};

TEST_F(PipePool, LogsTheCreationOfAPipe) {
    LogCapture log;
    connect();
    std::vector<std::string> own;
    for (const std::string& message : withoutNumbers(log.messages())) {
        if (message.find("Binding") != std::string::npos) own.push_back(message);
    }
    EXPECT_THAT(own, ElementsAre("DEBUG Need a QvPipe (" + name + "/Binding-N)",
                                 "DEBUG Created QvPipe (" + name + "/Binding-N)",
                                 "DEBUG Using QvPipe (" + name + "/Binding-N)"));
}

TEST_F(PipePool, NumbersBindingsThroughTheWholeProcess) {
    LogCapture log;
    connect();
    DefaultConnectionManager other(2000, NEVER_STALE);
    other.getPipe(name, "rw");
    const std::vector<int> numbers = bindingsBehind("Created.*/", log);
    ASSERT_EQ(numbers.size(), 2U);
    EXPECT_EQ(numbers[1], numbers[0] + 1);
}

TEST_F(PipePool, ConnectsForItsModeWithTheConnectTimeout) {
    QvPipe* const both = connect("rw");
    EXPECT_EQ(both->getConnectTimeout(), 2000);
    EXPECT_EQ(thrownBy([&] { both->getInputStream(), both->getOutputStream(); }), "nothing");
    QvPipe* const writer = connect("w");
    EXPECT_EQ(thrownBy([&] { writer->getOutputStream(); }), "nothing");
    EXPECT_EQ(thrownBy([&] { writer->getInputStream(); }),
              "IllegalStateException: Pipe is not bound with read access.");
}

TEST_F(PipePool, GivesBothStreamsABufferOf4096Bytes) {
    QvPipe* const pipe = connect();
    EXPECT_EQ(thrownBy([&] { pipe->getOutputStream()->rdbuf()->pubsetbuf(nullptr, 0); }),
              "QvPipeException: Buffer already set.  Reset not supported.");
    *pipe->getOutputStream() << std::string(4097, 'x');
    EXPECT_EQ(RawServer::read(*accepted[0], 4096).size(), 4096U);
    char byte = 0;
    EXPECT_EQ(thrownBy([&] { accepted[0]->readPipe(&byte, 0, 1, 50); }), "TimeoutException: QvPipe read timeout.");
    RawServer::write(*accepted[0], std::string(5000, 'y'));
    pipe->getInputStream()->get();
    EXPECT_EQ(pipe->getInputStream()->rdbuf()->in_avail(), 4095);
}

TEST_F(PipePool, UsesAReturnedPipeAgain) {
    QvPipe* const pipe = connect();
    manager.returnPipe(pipe);
    LogCapture log;
    EXPECT_EQ(get(), pipe);
    EXPECT_THAT(withoutNumbers(log.messages()), ElementsAre("DEBUG Using QvPipe (" + name + "/Binding-N)"));
}

TEST_F(PipePool, TakesTheLongestIdlePipeFirst) {
    QvPipe* const first = connect();
    QvPipe* const second = connect();
    manager.returnPipe(first);
    manager.returnPipe(second);
    EXPECT_EQ(get(), first);
    EXPECT_EQ(get(), second);
}

TEST_F(PipePool, KeepsModesApart) {
    QvPipe* const writer = connect("w");
    manager.returnPipe(writer);
    EXPECT_NE(connect("rw"), writer);
    EXPECT_EQ(get("w"), writer);
}

TEST_F(PipePool, KeepsTheIdlePipesOfAsManyNamesAsThereAre) {
    constexpr int NAMES = 20;
    std::vector<std::unique_ptr<RawServer>> servers;
    std::vector<QvPipe*> pipes;
    const auto nameOf = [&](int i) { return name + "-" + std::to_string(i); };
    for (int i = 0; i < NAMES; ++i) {
        servers.push_back(std::make_unique<RawServer>(nameOf(i)));
        pipes.push_back(manager.getPipe(nameOf(i), "rw"));
    }
    for (QvPipe* const pipe : pipes) manager.returnPipe(pipe);
    for (int i = 0; i < NAMES; ++i) EXPECT_EQ(manager.getPipe(nameOf(i), "rw"), pipes[static_cast<std::size_t>(i)]);
}

TEST_F(PipePool, ClosesStalePipesWhenOneIsAskedFor) {
    DefaultConnectionManager quick(2000, 40);
    QvPipe* const first = quick.getPipe(name, "rw");
    accepted.push_back(server.accept());
    QvPipe* const second = quick.getPipe(name, "w");
    accepted.push_back(server.accept());
    quick.returnPipe(first);
    quick.returnPipe(second);
    std::this_thread::sleep_for(60ms);  // the age itself is what this is about
    LogCapture log;
    quick.getPipe(name, "rw");
    const auto messages = withoutNumbers(log.messages());
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "DEBUG Deleting stale QvPipe Binding-N"), 2);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "DEBUG Closing QvPipe Binding-N"), 2);
    EXPECT_EQ(RawServer::read(*accepted[0], 0), "");
    EXPECT_EQ(thrownBy([&] { RawServer::read(*accepted[0], 1); }), "QvPipeException: QvPipe read failed.");
}

TEST_F(PipePool, ClosesTheOldestFirstAndKeepsTheYoungerOnes) {
    DefaultConnectionManager quick(2000, 400);
    QvPipe* pipes[3];
    for (QvPipe*& pipe : pipes) {
        pipe = quick.getPipe(name, "rw");
        accepted.push_back(server.accept());
    }
    quick.returnPipe(pipes[0]);
    quick.returnPipe(pipes[1]);
    std::this_thread::sleep_for(450ms);
    quick.returnPipe(pipes[2]);
    LogCapture log;
    EXPECT_EQ(quick.getPipe(name, "rw"), pipes[2]);
    const std::vector<int> deleted = bindingsBehind("Deleting stale QvPipe ", log);
    ASSERT_EQ(deleted.size(), 2U);
    EXPECT_EQ(deleted[1], deleted[0] + 1);
}

TEST_F(PipePool, TakesEveryIdlePipeForStaleWithANegativeTimeout) {
    DefaultConnectionManager never(2000, -1);
    QvPipe* const pipe = never.getPipe(name, "rw");
    accepted.push_back(server.accept());
    never.returnPipe(pipe);
    LogCapture log;
    never.getPipe(name, "rw");
    EXPECT_EQ(withoutNumbers(log.messages())[0], "DEBUG Deleting stale QvPipe Binding-N");
}

TEST_F(PipePool, SaysOfEachStalePipeThatItIsDeletedBeforeItCloses) {
    DefaultConnectionManager never(2000, -1);
    QvPipe* pipes[2];
    for (QvPipe*& pipe : pipes) {
        pipe = never.getPipe(name, "rw");
        accepted.push_back(server.accept());
    }
    for (QvPipe* pipe : pipes) never.returnPipe(pipe);
    LogCapture log;
    never.getPipe(name, "rw");
    std::vector<std::string> ends;
    for (const std::string& message : withoutNumbers(log.messages())) {
        if (message.find(" QvPipe Binding-N") != std::string::npos) ends.push_back(message);
    }
    EXPECT_THAT(ends, ElementsAre("DEBUG Deleting stale QvPipe Binding-N", "DEBUG Closing QvPipe Binding-N",
                                  "DEBUG Deleting stale QvPipe Binding-N", "DEBUG Closing QvPipe Binding-N"));
}

TEST_F(PipePool, UsesAPipeOfExactlyTheStaleTimeoutAgain) {
    DefaultConnectionManager strict(2000, 0);
    bool inOneMillisecond = false;
    for (int round = 0; round < 1000 && !inOneMillisecond; ++round) {
        QvPipe* const pipe = strict.getPipe(name, "rw");
        accepted.push_back(server.accept());
        pipe->setReadTimeout(7);  // a mark: a new pipe may lie at the same address
        const std::int64_t startMs = System::wallClockMs();
        strict.returnPipe(pipe);
        QvPipe* const next = strict.getPipe(name, "rw");
        inOneMillisecond = System::wallClockMs() == startMs;
        const bool isSame = next->getReadTimeout() == 7;
        if (!isSame) accepted.push_back(server.accept());
        EXPECT_TRUE(isSame || !inOneMillisecond);
        strict.removePipe(next);
    }
    EXPECT_TRUE(inOneMillisecond);
}

TEST_F(PipePool, TakesNullBackButCannotRemoveIt) {
    EXPECT_EQ(thrownBy([&] { manager.returnPipe(nullptr); }), "nothing");
    EXPECT_EQ(thrownBy([&] { manager.removePipe(nullptr); }),
              "IllegalStateException: Can't find the pipe in the Used or Available pools. Will delete it.");
}

TEST_F(PipePool, RefusesAPipeThatWasReturnedBefore) {
    LogCapture log;
    QvPipe* const pipe = connect();
    manager.returnPipe(pipe);
    const std::string thrown = thrownBy([&] { manager.returnPipe(pipe); });
    EXPECT_EQ(withoutNumbers({thrown})[0],
              "IllegalStateException: Binding-Nhas already been returned to the Pipe Pool");
    EXPECT_EQ(log.messages().back(), "ERROR " + thrown.substr(23));
    EXPECT_EQ(thrownBy([&] { manager.removePipe(pipe); }), thrown);
    EXPECT_EQ(log.messages().back(), "ERROR " + thrown.substr(23));
    EXPECT_EQ(get(), pipe);
}

TEST_F(PipePool, RefusesAPipeThatItDoesNotKnow) {
    QvPipe stranger;
    LogCapture log;
    const std::string expected =
        text("Can't find the pipe ", static_cast<void*>(&stranger), "in the used or available pools.");
    EXPECT_EQ(thrownBy([&] { manager.returnPipe(&stranger); }), "IllegalStateException: " + expected);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR " + expected));
}

TEST_F(PipePool, ClosesAPipeThatIsRemoved) {
    QvPipe* const pipe = connect();
    LogCapture log;
    const std::string address = text(static_cast<void*>(pipe));
    manager.removePipe(pipe);
    const auto messages = log.messages();
    ASSERT_GE(messages.size(), 2U);
    EXPECT_TRUE(std::regex_match(
        messages[0], std::regex("DEBUG Remove QvPipe Binding-[0-9]+\\(" + address + "\\) from used pipe list")))
        << messages[0];
    EXPECT_EQ(withoutNumbers(messages)[1], "DEBUG Closing QvPipe Binding-N");
    EXPECT_EQ(thrownBy([&] { RawServer::read(*accepted[0], 1); }), "QvPipeException: QvPipe read failed.");
}

TEST_F(PipePool, ClosesAndDeletesAnUnknownPipeThatIsRemoved) {
    auto* const stranger = new QvPipe(name, true, true);
    accepted.push_back(server.accept());
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    const std::string expected = "Can't find the pipe in the Used or Available pools. Will delete it.";
    EXPECT_EQ(thrownBy([&] { manager.removePipe(stranger); }), "IllegalStateException: " + expected);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR " + expected));
    EXPECT_EQ(thrownBy([&] { RawServer::read(*accepted[0], 1); }), "QvPipeException: QvPipe read failed.");
}

TEST_F(PipePool, ReportsAFailureToConnectAsTheBaseClassAndKeepsNothing) {
    server.close();
    LogCapture log;
    EXPECT_EQ(thrownBy([&] { get(); }), "QvPipeException: Could not connect to pipe.");
    EXPECT_THAT(
        withoutNumbers(log.messages()),
        ElementsAre("DEBUG Need a QvPipe (" + name + "/Binding-N)", "ERROR Could not open pipe. GLE=2",
                    "ERROR Failed create/connect QvPipe (" + name + "/Binding-N)", "DEBUG Closing QvPipe Binding-N",
                    ::testing::StartsWith("DEBUG Close Handles: "), ::testing::StartsWith("DEBUG Close Handles: ")));
}

TEST_F(PipePool, ReportsABusyServerAsTheBaseClass) {
    DefaultConnectionManager quick(50, NEVER_STALE);
    quick.getPipe(name, "rw");
    EXPECT_EQ(thrownBy([&] { quick.getPipe(name, "rw"); }), "QvPipeException: Timed out connecting to pipe");
}

TEST_F(PipePool, LetsMisuseThrough) {
    EXPECT_EQ(thrownBy([&] { manager.getPipe(name, ""); }), "IllegalArgumentException");
    EXPECT_EQ(thrownBy([&] { manager.getPipe("", "rw"); }), "IllegalStateException: Pipe not yet bound");
    EXPECT_EQ(thrownBy([&] { connect(); }), "nothing");
}

TEST_F(PipePool, ClosesPipesInUseWithItsDestruction) {
    auto owned = std::make_unique<DefaultConnectionManager>(2000, NEVER_STALE);
    owned->getPipe(name, "rw");
    const auto used = server.accept();
    QvPipe* const idle = owned->getPipe(name, "w");
    const auto returned = server.accept();
    owned->returnPipe(idle);
    owned.reset();
    EXPECT_EQ(thrownBy([&] { RawServer::read(*used, 1); }), "QvPipeException: QvPipe read failed.");
    EXPECT_EQ(thrownBy([&] { RawServer::read(*returned, 1); }), "QvPipeException: QvPipe read failed.");
}

TEST_F(PipePool, ClosesIdlePipesBeforeUsedOnesWithItsDestruction) {
    auto owned = std::make_unique<DefaultConnectionManager>(2000, NEVER_STALE);
    LogCapture log;
    owned->getPipe(name, "rw");
    const auto used = server.accept();
    QvPipe* const idle = owned->getPipe(name, "w");
    const auto returned = server.accept();
    owned->returnPipe(idle);
    owned.reset();
    const std::vector<int> created = bindingsBehind("Created.*/", log);
    ASSERT_EQ(created.size(), 2U);
    EXPECT_THAT(bindingsBehind("Closing QvPipe ", log), ElementsAre(created[1], created[0]));
}

TEST_F(PipePool, CreatesPipesOneAtATimeInTheWholeProcess) {
    DefaultConnectionManager other(20000, NEVER_STALE);
    const std::string otherName = uniquePipeName();
    RawServer otherServer(otherName);
    connect();
    get();  // takes the place in the queue
    LogCapture log;
    auto blocked = std::async(std::launch::async, [&] { return thrownBy([&] { get(); }); });
    ASSERT_TRUE(eventually([&] { return log.contains("DEBUG Waiting for named pipe."); }));
    auto second = inBackground([&] { return thrownBy([&] { other.getPipe(otherName, "rw"); }); });
    EXPECT_EQ(second.wait_for(PENDING), std::future_status::timeout);
    server.accept();
    EXPECT_EQ(blocked.get(), "nothing");
    EXPECT_EQ(second.get(), "nothing");
}

TEST_F(PipePool, LendsNoPipeToTwoThreadsAtOnce) {
    std::atomic<bool> done{false};
    std::thread acceptor([&] {
        std::vector<std::unique_ptr<QvPipe>> pipes;
        while (!done) {
            if (thrownBy([&] { pipes.push_back(server.accept()); }) != "nothing") return;
        }
    });
    std::mutex mutex;  // guards the two sets
    std::set<QvPipe*> lent;
    std::set<QvPipe*> kept;
    std::atomic<int> lentTwice{0};
    std::vector<std::thread> users;
    for (int i = 0; i < 6; ++i) {
        users.emplace_back([&, i] {
            for (int round = 0; round < 100; ++round) {
                QvPipe* const pipe = get(i % 2 == 0 ? "w" : "rw");
                const bool keep = round % 10 != 9;
                {
                    const std::lock_guard<std::mutex> guard(mutex);
                    if (!lent.insert(pipe).second) ++lentTwice;
                }
                std::this_thread::yield();
                {
                    const std::lock_guard<std::mutex> guard(mutex);
                    lent.erase(pipe);
                    keep ? static_cast<void>(kept.insert(pipe)) : static_cast<void>(kept.erase(pipe));
                }
                keep ? manager.returnPipe(pipe) : manager.removePipe(pipe);
            }
        });
    }
    for (std::thread& user : users) user.join();
    EXPECT_EQ(lentTwice, 0);
    EXPECT_LE(kept.size(), 6U);  // no more than were ever in use at once
    done = true;
    server.close();
    acceptor.join();
}

TEST_F(PipePool, TellsNamesAndModesOfTheSameLengthApart) {
    const std::string longer = name + "x";
    RawServer second(longer);
    RawServer third(name.substr(0, name.size() - 1) + "~x");
    QvPipe* const writer = connect("w");
    QvPipe* const first = manager.getPipe(longer, "w");
    manager.returnPipe(writer);
    manager.returnPipe(first);
    QvPipe* const both = connect("rw");  // as long as the key of the longer name
    EXPECT_NE(both, first);
    QvPipe* const reader = connect("r");  // as long as that of the writer
    EXPECT_NE(reader, writer);
    QvPipe* const other = manager.getPipe(name.substr(0, name.size() - 1) + "~x", "w");
    EXPECT_NE(other, first);
    EXPECT_EQ(manager.getPipe(longer, "w"), first);
    EXPECT_EQ(get("w"), writer);
}

TEST_F(PipePool, KeepsTheIdlePipesOfMoreNamesThanItKeepsWithoutThem) {
    constexpr std::size_t NAMES = 20;
    std::vector<std::unique_ptr<RawServer>> servers;
    for (std::size_t i = 0; i < NAMES; ++i) servers.push_back(std::make_unique<RawServer>(name + std::to_string(i)));
    for (int round = 0; round < 2; ++round) {
        std::vector<QvPipe*> pipes;
        for (std::size_t i = 0; i < NAMES; ++i) pipes.push_back(manager.getPipe(name + std::to_string(i), "rw"));
        for (QvPipe* pipe : pipes) manager.returnPipe(pipe);
        for (std::size_t i = 0; i < NAMES; ++i)
            EXPECT_EQ(manager.getPipe(name + std::to_string(i), "rw"), pipes[i]) << i;
        for (QvPipe* pipe : pipes) manager.returnPipe(pipe);
    }
}

}  // namespace
}  // namespace qvtp_test
