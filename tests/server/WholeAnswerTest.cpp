#include "server/Worker.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace qvtp_test {
namespace {

/// An answer that was sent as a whole is complete.
class WholeAnswer : public Worker {};

TEST_F(WholeAnswer, TakesNothingMore) {
    std::string written, sent, again;
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse& response) {
        response.setStatusCode(200, "OK");
        response.setBody("hello", 5);
        response.send();
        written = thrownBy([&] { *response.getBodyStream() << "more" << std::flush; });
        again = thrownBy([&] { response.send(); });
    };
    server.start();
    RawClient client(server.name);
    EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK) << "nothing came between";
    server.stop();
    EXPECT_EQ(written, "QvPipeException: Atempt to write to the QvPipe  after the message has been sent.");
    EXPECT_EQ(again,
              "IllegalStateException: Both the setBody and getBodyStream methods were called. Only one method of "
              "providing body data is permitted.");
}

}  // namespace
}  // namespace qvtp_test
