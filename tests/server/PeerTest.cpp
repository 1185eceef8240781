#include "common/System.h"
#include "common/Utf8String.h"
#include "platform/BackEnd.h"
#include "server/Worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <sstream>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;
namespace System = Quovane::Internal::Qvtp::System;

std::vector<std::int64_t> idsOf(const QvtpServerRequest::Peer& peer) {
    return {peer.processId, peer.userId, peer.groupId};
}

/// Who has sent a request.
class Peer : public Worker {
  protected:
    const std::vector<std::int64_t> own{System::currentProcessId(), backend::ownUserId(), backend::ownGroupId()};
};

TEST_F(Peer, IsTheProcessOfTheClientForAPostAndForANotify) {
    std::promise<std::vector<std::int64_t>> notified;
    std::vector<std::int64_t> posted;
    server.handler.onNotify = [&](QvtpServerRequest& request) { notified.set_value(idsOf(request.getPeer())); };
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        posted = idsOf(request.getPeer());
        response.sendError(200, "OK");
    };
    server.start();
    RawClient client(server.name);
    client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(notified.get_future().get(), own);
    const std::string answer = "QVTP/1.0 200 OK\r\nContent-Length: 0\r\nServer: QvtpServer\r\n\r\n";
    EXPECT_EQ(client.exchange("POST /p QVTP/1.0\r\nContent-Length: 0\r\n\r\n", answer), answer);
    EXPECT_EQ(posted, own);
}

TEST_F(Peer, IsNobodyOutsideOfAServer) {
    std::istringstream in(POST_HELLO);
    Quovane::Soa::Common::Xml::Utf8String converter;
    const QvtpServerRequest request(&server.server, &in, &converter);
    EXPECT_THAT(idsOf(request.getPeer()), ElementsAre(-1, -1, -1));
}

}  // namespace
}  // namespace qvtp_test
