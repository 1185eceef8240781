#include "faults/Exchange.h"

#include <qvtp/config/QvtpConfig.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace qvtp_test::faults {

namespace {

constexpr int CONFIGURED = 4321;
const std::string FUNCTION = "billing";
const std::string COMPONENT = "frontend";

/// The configuration file of a process, read at its first use. It is there as a whole or not at all.
class Configuration : public Scenario {
  public:
    /// What the parser's own libraries print while they have no memory is nobody's concern.
    std::string act() override {
        const int standardError = ::dup(STDERR_FILENO);
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(nowhere, STDERR_FILENO);
        ::close(nowhere);
        std::string outcome = apply();
        ::dup2(standardError, STDERR_FILENO);
        ::close(standardError);
        return outcome;
    }
    std::string afterwards() override {
        const std::string first = apply();
        const std::string second = apply();
        if (first != second) return "read anew: " + first + ", then " + second;
        return first == RIGHT || first == "no configuration" ? RIGHT : "the next reading: " + first;
    }

  private:
    static std::string apply() {
        QvtpClient client;
        const int before = client.getIntegerOption(QvtpClient::CONNECTION_TIMEOUT);
        const std::string thrown = thrownBy([&] {
            const Working working(CLIENT);
            QvtpConfig::getInstance().setQvtpClientOptions(client, FUNCTION, COMPONENT);
        });
        if (thrown != "nothing") return thrown;
        const int connect = client.getIntegerOption(QvtpClient::CONNECTION_TIMEOUT);
        const int stale = client.getIntegerOption(QvtpClient::IDLE_TIMEOUT);
        if (connect == CONFIGURED && stale == CONFIGURED + 1) return RIGHT;
        return connect == before ? "no configuration" : "WRONG: half a configuration";
    }
};

std::unique_ptr<Scenario> makeConfiguration() {
    return std::make_unique<Configuration>();
}

}  // namespace

std::vector<Entry> configScenarios() {
    return {{"configuration file", CLIENT, makeConfiguration, 50, 1, true}};
}

}  // namespace qvtp_test::faults
