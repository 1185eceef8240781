#include <qvtp/server/QvtpServer.h>

#include <qvtp/io/QvPipe.h>

#include "support/LogCapture.h"
#include "support/TestServer.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;
using Quovane::Io::QvPipe;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto UNKNOWN_OPTION = static_cast<ServerOptions>(99);

class OptionsOfAServer : public ::testing::Test {
  protected:
    QvtpServer server{uniquePipeName(), 1};
};

TEST_F(OptionsOfAServer, StartWithTheirDefaults) {
    EXPECT_EQ(server.getIntegerOption(QvtpServer::ACCESS_MODE), 1);
    EXPECT_EQ(server.getStringOption(QvtpServer::SERVER_NAME), "QvtpServer");
    EXPECT_EQ(server.getIntegerOption(QvtpServer::MAX_REQUEST_PROCESSORS), 5);
    EXPECT_EQ(server.getIntegerOption(QvtpServer::ACCEPT_TIMEOUT), 0);
    EXPECT_EQ(server.getIntegerOption(QvtpServer::IDLE_TIMEOUT), 13000);
    EXPECT_EQ(server.getIntegerOption(QvtpServer::RECEIVE_TIMEOUT), 3000);
    EXPECT_EQ(server.getIntegerOption(QvtpServer::BUFFER_SIZE), 4096);
    EXPECT_EQ(server.getHandler(), nullptr);
    EXPECT_FALSE(server.isRunning());
    EXPECT_EQ(server.idleRequestProcessors(), 0);
    EXPECT_EQ(server.totalRequestProcessors(), 0);
}

TEST_F(OptionsOfAServer, AreNumberedForTheConfigurationFile) {
    EXPECT_EQ(static_cast<int>(QvtpServer::ACCESS_MODE), 0);
    EXPECT_EQ(static_cast<int>(QvtpServer::SERVER_NAME), 1);
    EXPECT_EQ(static_cast<int>(QvtpServer::MAX_REQUEST_PROCESSORS), 2);
    EXPECT_EQ(static_cast<int>(QvtpServer::ACCEPT_TIMEOUT), 3);
    EXPECT_EQ(static_cast<int>(QvtpServer::IDLE_TIMEOUT), 4);
    EXPECT_EQ(static_cast<int>(QvtpServer::RECEIVE_TIMEOUT), 5);
    EXPECT_EQ(static_cast<int>(QvtpServer::BUFFER_SIZE), 6);
}

TEST_F(OptionsOfAServer, AreStoredSilentlyWhateverTheirValue) {
    LogCapture log;
    for (const auto option : {QvtpServer::MAX_REQUEST_PROCESSORS, QvtpServer::ACCEPT_TIMEOUT, QvtpServer::IDLE_TIMEOUT,
                              QvtpServer::RECEIVE_TIMEOUT, QvtpServer::BUFFER_SIZE}) {
        for (const int value : {0, -3, 77}) {
            server.setOption(option, value);
            EXPECT_EQ(server.getIntegerOption(option), value);
        }
    }
    server.setOption(QvtpServer::SERVER_NAME, "Vault");
    EXPECT_EQ(server.getStringOption(QvtpServer::SERVER_NAME), "Vault");
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(OptionsOfAServer, KeepTheAccessFlagTrue) {
    server.setOption(QvtpServer::ACCESS_MODE, 0);
    EXPECT_EQ(server.getIntegerOption(QvtpServer::ACCESS_MODE), 1);
    EXPECT_EQ(QvtpServer(uniquePipeName(), 0).getIntegerOption(QvtpServer::ACCESS_MODE), 1);
}

TEST_F(OptionsOfAServer, OfTheOtherKindAreLogged) {
    LogCapture log;
    server.setOption(QvtpServer::SERVER_NAME, 5);
    server.setOption(UNKNOWN_OPTION, 5);
    server.setOption(QvtpServer::BUFFER_SIZE, "5");
    EXPECT_EQ(server.getIntegerOption(QvtpServer::SERVER_NAME), -1);
    EXPECT_EQ(server.getIntegerOption(UNKNOWN_OPTION), -1);
    EXPECT_EQ(server.getStringOption(QvtpServer::IDLE_TIMEOUT), "");
    EXPECT_THAT(log.messages(),
                ElementsAre("ERROR Attempt to set a non integer option.", "ERROR Attempt to set a non integer option.",
                            "ERROR Attempt to set a non string option.", "ERROR Attempt to get a non integer option.",
                            "ERROR Attempt to get a non integer option.", "ERROR Attempt to get a non string option."));
    EXPECT_EQ(server.getStringOption(QvtpServer::SERVER_NAME), "QvtpServer");
}

TEST(QvtpServerConstruction, LogsItsPipe) {
    const std::string name = uniquePipeName();
    LogCapture log;
    const QvtpServer server(name, 1);
    EXPECT_EQ(log.messages().back(), "DEBUG QvTpServer is using Pipe " + name);
}

TEST(QvtpServerConstruction, DecidesTheDirection) {
    const std::string name = uniquePipeName();
    const QvtpServer server(name, 0);
    EXPECT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "ConnectException: Access denied.");
    EXPECT_EQ(thrownBy([&] { QvPipe(name, false, true); }), "nothing");
}

TEST(QvtpServerConstruction, LogsAPipeThatCannotBeCreatedAndGoesOn) {
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    QvtpServer server(std::string(300, 'x'), 1);
    EXPECT_EQ(log.messages().back(), "ERROR Failed to create the QvtpServer with the named pipe " +
                                         std::string(300, 'x') + ". CreateNamedPipe failed");
    log.clear();
    server.run();
    EXPECT_FALSE(server.isRunning());
    EXPECT_THAT(log.messages(),
                ElementsAre("ERROR QvtpServer " + std::string(300, 'x') + " cannot run without its named pipe."));
}

TEST(QvtpServerRun, LogsItsLifeAndItsCounters) {
    TestServer server;
    LogCapture log;
    server.start();
    server.stop();
    const std::string name = server.name;
    const auto messages = log.messages();
    EXPECT_EQ(messages.front(), "DEBUG QvTpServer is running on Pipe " + name);
    EXPECT_TRUE(
        log.contains("DEBUG QvtpServer " + name + " was interrupted. The QvtpServer will shutdown. accept aborted") ||
        log.contains("DEBUG QvtpServer " + name + " was interrupted. The QvtpServer will shutdown. Pipe is closed."));
    ASSERT_GE(messages.size(), 2U);
    EXPECT_EQ(messages[messages.size() - 2], "DEBUG \nQvtpServer " + name +
                                                 " Summary:\n"
                                                 "    Total POST requests:       0\n"
                                                 "    Total NOTIFY requests:     0\n"
                                                 "    Total workers used:        0\n"
                                                 "    Total idle timeouts:       0\n"
                                                 "    Total waits for thread:    0\n"
                                                 "    Peak number of threads:    0\n");
    EXPECT_EQ(messages.back(), "INFO QvtpServer " + name + " is stopped.");
}

TEST(QvtpServerRun, HasNoSummaryBelowDebug) {
    TestServer server;
    LogCapture log(LogCapture::LoggingLevel::INFO);
    server.start();
    server.stop();
    EXPECT_EQ(log.messages().back(), "INFO QvtpServer " + server.name + " is stopped.");
    EXPECT_EQ(log.text().find("Summary"), std::string::npos);
}

TEST(QvtpServerRun, LogsAcceptsThatTimeOutAndGoesOn) {
    TestServer server;
    server.server.setOption(QvtpServer::ACCEPT_TIMEOUT, 20);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    server.start();
    const std::string line =
        "ERROR QvtpServer failed to accept a QvPipe on the named pipe " + server.name + ". QvPipe accept timeout";
    EXPECT_TRUE(eventually([&] { return log.count(line) >= 2; }));
    EXPECT_TRUE(server.server.isRunning());
}

TEST(QvtpServerRun, DoesNothingOnShutdownWhileItIsNotRunning) {
    QvtpServer server(uniquePipeName(), 1);
    LogCapture log;
    server.shutdown();
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(QvtpServerRun, OffersTheThreadsOfItsPool) {
    for (const auto& [option, capacity] : {std::pair(0, 5), std::pair(1, 3), std::pair(2, 3), std::pair(7, 7)}) {
        TestServer server;
        server.server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, option);
        server.start();
        EXPECT_EQ(server.server.idleRequestProcessors(), capacity) << option;
    }
}

TEST(QvtpServerRun, EndsHoweverTheShutdownFallsAgainstTheAccept) {
    for (int round = 0; round < 100; ++round) {
        TestServer server;
        server.start();
        const QvPipe client(server.name, true, true);
        server.stop();
        EXPECT_FALSE(server.server.isRunning());
    }
}

TEST(QvtpServerRun, IsWaitedForByTheDestructor) {
    const std::string name = uniquePipeName();
    std::optional<QvtpServer> server(std::in_place, name, 1);
    LogCapture log;
    std::thread thread([&] { server->run(); });
    ASSERT_TRUE(eventually([&] { return server->isRunning(); }));
    server.reset();
    EXPECT_TRUE(log.contains("INFO QvtpServer " + name + " is stopped."));
    thread.join();
}

TEST(QvtpServerRun, FreesTheNameWhenTheServerGoes) {
    const std::string name = uniquePipeName();
    for (int i = 0; i < 20; ++i) {
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        const QvtpServer server(name, 1);
        EXPECT_THAT(log.messages(), IsEmpty());
    }
}

}  // namespace
}  // namespace qvtp_test
