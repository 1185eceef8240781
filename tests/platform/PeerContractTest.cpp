#include "common/System.h"
#include "platform/PipeContract.h"

namespace qvtp_test {
namespace {

namespace System = Quovane::Internal::Qvtp::System;

/// Who a client is, as the system says it.
class PeerContract : public PipeContract {
  protected:
    void SetUp() override { pair(server, client); }

    static std::vector<std::int64_t> peerOf(const End& end) {
        const platform::PeerIds ids = platform::platformPeer(end.pipe);
        return {ids.processId, ids.userId, ids.groupId};
    }

    End server;
    End client;
};

TEST_F(PeerContract, IsTheProcessAndWhereTheSystemSaysItTheUser) {
    LogCapture log;
    EXPECT_THAT(peerOf(server), ElementsAre(System::currentProcessId(), backend::ownUserId(), backend::ownGroupId()));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(PeerContract, StaysKnownWhenReadingHasEnded) {
    platform::platformEndReading(server.pipe);
    EXPECT_EQ(peerOf(server).front(), System::currentProcessId());
}

TEST_F(PeerContract, IsNobodyOnAStaleHandleOrAnInvalidOne) {
    const End stale = [&] {
        End copy;
        copy.pipe = server.pipe;
        return copy;
    }();
    server.close();
    EXPECT_THAT(peerOf(stale), ElementsAre(-1, -1, -1));
    EXPECT_THAT(peerOf(End()), ElementsAre(-1, -1, -1));
}

}  // namespace
}  // namespace qvtp_test
