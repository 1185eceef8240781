#include <qvtp/client/QvtpClient.h>
#include <qvtp/config/QvtpConfig.h>
#include <qvtp/message/QvtpMessage.h>

#include "support/Child.h"
#include "support/OutOfMemory.h"
#include "support/Process.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

/// The first use of the configuration, in a child each time: a process reads it once.
class ConfigWithoutMemory : public ::testing::Test {
  protected:
    void SetUp() override {
        writeFile(directory + "/settings.xml",
                  "<root><QvtpClient function='F' component='C' stale_timeout='2'/></root>");
        setEnvironment("QvtpConfigurationFile", directory + "/settings.xml");
    }
    void TearDown() override { unsetEnvironment("QvtpConfigurationFile"); }

    static int staleTimeout() {
        QvtpClient client;
        QvtpConfig::getInstance().setQvtpClientOptions(client, "F", "C");
        return client.getIntegerOption(QvtpClient::IDLE_TIMEOUT);
    }

    const std::string directory = makeTestDirectory();
};

enum Result { CONFIGURED, NOT_CONFIGURED, NO_ALLOCATION_LEFT };

/// The nth allocation of the first getInstance() fails, and a second one is used.
int configureAfterFailure(long n, int (*use)()) {
    bool failed = false;
    thrownBy([&] {
        const OutOfMemory memory(n, OutOfMemory::ONCE);
        failed = true;  // that is how it got out, if it did
        QvtpConfig::getInstance();
        failed = memory.hasFailed();
    });
    if (!failed) return NO_ALLOCATION_LEFT;
    return use() == 2 ? CONFIGURED : NOT_CONFIGURED;
}

TEST_F(ConfigWithoutMemory, IsThereAtTheSecondCall) {
    int result = CONFIGURED;
    long n = 1;
    while (result == CONFIGURED) {
        result = resultInChild([n] { return configureAfterFailure(n, staleTimeout); });
        EXPECT_TRUE(result == CONFIGURED || result == NO_ALLOCATION_LEFT) << n << ": " << result;
        n += n < 20 ? 1 : 83;  // of some 4000
    }
    EXPECT_GT(n, 1000);
}

/// Lets each allocation of the use of a configuration that is there fail. 0 if all that comes of it can be caught by
/// its class.
int applyWithoutMemory() {
    QvtpConfig::getInstance();
    bool failed = true;
    for (long n = 1; failed; ++n) {
        const std::string thrown = thrownBy([&] {
            QvtpClient client;
            const OutOfMemory memory(n, OutOfMemory::ONCE);
            QvtpConfig::getInstance().setQvtpClientOptions(client, "F", "C");
            failed = memory.hasFailed();
        });
        if (thrown != "nothing" && thrown != "std::exception: std::bad_alloc") return static_cast<int>(n);
    }
    return 0;
}

TEST_F(ConfigWithoutMemory, IsNotAppliedAndSaysSoInTheLanguagesOwnClass) {
    EXPECT_EQ(resultInChild(applyWithoutMemory), 0);
}

TEST_F(ConfigWithoutMemory, IsNoneWhenThereIsNotEnoughToParseTheFile) {
    const std::string logFile = directory + "/log.txt";
    const auto parseWithoutMemory = [&] {
        QvtpMessage::setLoggingLevel(std::fopen(logFile.c_str(), "w"), LoggingLevel::ERROR, nullptr,
                                     CommunicationLevel::OFF);
        {
            const OutOfMemory memory(2, OutOfMemory::FROM_THEN_ON, 100000);  // the parser's largest, after its reserve
            QvtpConfig::getInstance();
            if (!memory.hasFailed()) return 1;
        }
        return staleTimeout() == 10000 ? 0 : 2;
    };
    EXPECT_EQ(resultInChild(parseWithoutMemory), 0);
    EXPECT_THAT(contentsOfFile(logFile),
                ::testing::HasSubstr("Unexpected Exception while parsing the Qvtp configuration file"));
}

}  // namespace
}  // namespace qvtp_test
