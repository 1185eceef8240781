#include "support/Process.h"
#include "support/TestServer.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace qvtp_test {
namespace {

/// Nothing but the protocol's own bytes travels on the socket, so that general tools can hold a conversation.
TEST(Socat, HoldsAConversationWithAServer) {
    TestServer server;
    server.start();
    const std::string output = makeTestDirectory() + "/answer.txt";
    // The file is named relative to the directory: its full name may not fit into the tool's socket address.
    const std::string command =
        "cd \"$QVTP_PIPE_DIR\" && printf 'POST /echo QVTP/1.0\\r\\nContent-Length: "
        "5\\r\\n\\r\\nhello' | socat -t 1 - UNIX-CONNECT:" +
        server.name + ".sock > '" + output + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_EQ(contentsOfFile(output), "QVTP/1.0 200 OK\nContent-Length: 5\nServer: QvtpServer\n\nhello");
}

}  // namespace
}  // namespace qvtp_test
