#include "server/Worker.h"
#include "support/FailingCall_linux.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <string>
#include <thread>

namespace qvtp_test {
namespace {

/// What a drain returns that is held where it closes the server pipe, before it comes to a worker that drops a request
/// meanwhile. Nothing if the server's accept was not waiting yet: it is not signalled then.
std::optional<bool> outcomeOfADrainThatIsHeld() {
    TestServer server;
    WaitHold hold;
    std::atomic<int> begun{0};
    std::promise<void> release;
    server.server.setUnhandledExceptionPolicy(QvtpServer::ANSWER);
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse&) {
        ++begun;
        release.get_future().wait();
        throw 1;
    };
    server.start();
    RawClient client(server.name);
    client.write(std::string(POST_HELLO) + POST_HELLO);
    EXPECT_TRUE(eventually([&] { return begun == 1; }));
    std::this_thread::sleep_for(10ms);  // most accepts wait again by then
    auto draining = std::async(std::launch::async, [&] {
        hold.armSignal();
        return server.server.drain(30000);
    });
    const bool isHeld = eventually([&] { return hold.hasBegun(); }, 1s);
    release.set_value();
    client.readToEnd();
    EXPECT_EQ(begun, 1);
    hold.letGo();
    const bool outcome = draining.get();
    server.stop();  // before what its handler uses
    return isHeld ? std::optional<bool>(outcome) : std::nullopt;
}

TEST(DrainOutcomeOfAWorker, CountsWhatIsDroppedBeforeTheDrainHasComeToIt) {
    std::optional<bool> outcome;
    EXPECT_TRUE(eventually([&] {
        outcome = outcomeOfADrainThatIsHeld();
        return outcome.has_value();
    }));
    EXPECT_EQ(outcome, std::optional<bool>(false));
}

}  // namespace
}  // namespace qvtp_test
