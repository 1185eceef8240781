#include "common/System.h"
#include "server/Worker.h"
#include "support/Child.h"

#include <gtest/gtest.h>

#include <future>

namespace qvtp_test {
namespace {

class PeerOfAnotherProcess : public Worker {};

TEST_F(PeerOfAnotherProcess, IsTheChildThatConnected) {
    std::promise<std::int64_t> peer;
    server.handler.onNotify = [&](QvtpServerRequest& request) { peer.set_value(request.getPeer().processId); };
    server.start();
    const int child = startChild([&] {
        RawClient client(server.name);
        client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
        client.readToEnd();
        return 0;
    });
    EXPECT_EQ(peer.get_future().get(), child);
    server.stop();
    EXPECT_EQ(resultOf(child), 0);
}

}  // namespace
}  // namespace qvtp_test
