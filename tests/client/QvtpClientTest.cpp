#include <qvtp/client/QvtpClient.h>

#include "client/DefaultConnectionManager.h"
#include "client/Requests.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <set>
#include <vector>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto UNKNOWN_OPTION = static_cast<ClientOptions>(99);

class NullManager : public QvtpConnectionManager {
  public:
    Quovane::Io::QvPipe* getPipe(const std::string&, const std::string&) override { return nullptr; }
    void returnPipe(Quovane::Io::QvPipe*) override { ++returned; }
    void removePipe(Quovane::Io::QvPipe*) override {}
    int returned = 0;
};

TEST(QvtpClient, StartsWithItsDefaults) {
    const QvtpClient client;
    EXPECT_EQ(client.getIntegerOption(QvtpClient::CONNECTION_TIMEOUT), 60000);
    EXPECT_EQ(client.getIntegerOption(QvtpClient::IDLE_TIMEOUT), 10000);
    EXPECT_EQ(client.getIntegerOption(QvtpClient::BUFFER_SIZE), 40960);
    EXPECT_EQ(client.getStringOption(QvtpClient::USER_AGENT), "QvtpClient");
}

TEST(QvtpClient, NumbersItsOptionsForTheConfigurationFile) {
    EXPECT_EQ(static_cast<int>(QvtpClient::CONNECTION_TIMEOUT), 0);
    EXPECT_EQ(static_cast<int>(QvtpClient::IDLE_TIMEOUT), 1);
    EXPECT_EQ(static_cast<int>(QvtpClient::USER_AGENT), 2);
    EXPECT_EQ(static_cast<int>(QvtpClient::BUFFER_SIZE), 3);
}

TEST(QvtpClient, StoresAnyIntegerSilently) {
    QvtpClient client;
    LogCapture log;
    for (const auto option : {QvtpClient::CONNECTION_TIMEOUT, QvtpClient::IDLE_TIMEOUT, QvtpClient::BUFFER_SIZE}) {
        for (const int value : {0, -5, 123}) {
            client.setOption(option, value);
            EXPECT_EQ(client.getIntegerOption(option), value);
        }
    }
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(QvtpClient, StoresItsUserAgent) {
    QvtpClient client;
    client.setOption(QvtpClient::USER_AGENT, "Teller/2");
    EXPECT_EQ(client.getStringOption(QvtpClient::USER_AGENT), "Teller/2");
}

TEST(QvtpClient, LogsAnIntegerForTheStringOption) {
    QvtpClient client;
    LogCapture log;
    client.setOption(QvtpClient::USER_AGENT, 5);
    client.setOption(UNKNOWN_OPTION, 5);
    EXPECT_THAT(
        log.messages(),
        ElementsAre("DEBUG Setting QvtpClient option unrecognized.", "ERROR Attempt to set an invalid integer option",
                    "DEBUG Setting QvtpClient option unrecognized.", "ERROR Attempt to set an invalid integer option"));
    EXPECT_EQ(client.getStringOption(QvtpClient::USER_AGENT), "QvtpClient");
}

TEST(QvtpClient, LogsAStringForAnIntegerOption) {
    QvtpClient client;
    LogCapture log;
    client.setOption(QvtpClient::BUFFER_SIZE, "5");
    client.setOption(UNKNOWN_OPTION, "5");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Attempt to set an invalid string option",
                                            "ERROR Attempt to set an invalid string option"));
    EXPECT_EQ(client.getIntegerOption(QvtpClient::BUFFER_SIZE), 40960);
}

TEST(QvtpClient, ReadsNothingFromAnOptionOfTheOtherKind) {
    const QvtpClient client;
    LogCapture log;
    EXPECT_EQ(client.getIntegerOption(QvtpClient::USER_AGENT), -1);
    EXPECT_EQ(client.getIntegerOption(UNKNOWN_OPTION), -1);
    EXPECT_EQ(client.getStringOption(QvtpClient::BUFFER_SIZE), "");
    EXPECT_EQ(client.getStringOption(UNKNOWN_OPTION), "");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Attempt to retrieve an invalid integer option",
                                            "ERROR Attempt to retrieve an invalid integer option",
                                            "ERROR Attempt to retrieve an invalid string option",
                                            "ERROR Attempt to retrieve an invalid string option"));
}

TEST(QvtpClient, SpeaksTheCurrentVersion) {
    EXPECT_EQ(QvtpClient().getQvtpVersion(), Version::CURRENT_VERSION);
}

TEST(QvtpClient, MakesOneManagerOfItsOwn) {
    QvtpClient client;
    QvtpConnectionManager* const manager = client.getManager();
    EXPECT_NE(dynamic_cast<Quovane::Internal::Qvtp::DefaultConnectionManager*>(manager), nullptr);
    EXPECT_EQ(client.getManager(), manager);
}

TEST(QvtpClient, MakesOneManagerWhicheverThreadAsksFirst) {
    QvtpClient client;
    std::vector<std::future<QvtpConnectionManager*>> managers;
    for (int i = 0; i < 8; ++i) managers.push_back(std::async(std::launch::async, [&] { return client.getManager(); }));
    std::set<QvtpConnectionManager*> distinct;
    for (auto& manager : managers) distinct.insert(manager.get());
    EXPECT_EQ(distinct.size(), 1U);
}

/// What a client's manager has of the client's time-outs.
class ClientTimeouts : public Requests {
  protected:
    void notifyOnce() {
        NotifyRequest request(&client, name, "/r");
        request.setBody("x", 1);
        EXPECT_THAT(notify(request, "x"), ::testing::StartsWith("NOTIFY /r "));
    }
    static bool deletesStalePipes(const LogCapture& log) {
        return log.text().find("Deleting stale QvPipe ") != std::string::npos;
    }
};

TEST_F(ClientTimeouts, ReachThePipesOfItsManager) {
    client.setOption(QvtpClient::CONNECTION_TIMEOUT, 17);
    EXPECT_EQ(client.getManager()->getPipe(name, "rw")->getConnectTimeout(), 17);
}

TEST_F(ClientTimeouts, AreTakenAsTheyStandWhenTheManagerIsMade) {
    client.setOption(QvtpClient::IDLE_TIMEOUT, -1);
    notifyOnce();
    pipe.reset();
    LogCapture log;
    notifyOnce();
    EXPECT_TRUE(deletesStalePipes(log));
}

TEST_F(ClientTimeouts, ChangeNothingOnceTheManagerIsMade) {
    notifyOnce();
    client.setOption(QvtpClient::IDLE_TIMEOUT, -1);
    LogCapture log;
    notifyOnce();
    EXPECT_FALSE(deletesStalePipes(log));
}

TEST(QvtpClient, LeavesTheManagerOfTheCallerAlone) {
    NullManager manager;
    {
        QvtpClient client(&manager);
        EXPECT_EQ(client.getManager(), &manager);
    }
    manager.returnPipe(nullptr);
    EXPECT_EQ(manager.returned, 1);
}

}  // namespace
}  // namespace qvtp_test
