#include <qvtp/io/QvPipe.h>

#include <qvtp/io/PipeBufferBase.h>
#include <qvtp/io/ServerQvPipe.h>

#include "support/LogCapture.h"
#include "support/PipeName.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <thread>

namespace qvtp_test {
namespace {

using namespace Quovane::Io;
using namespace std::chrono_literals;

TEST(QvPipe, StartsUnboundWithTenSecondsToConnect) {
    const QvPipe pipe;
    EXPECT_FALSE(pipe.isBound());
    EXPECT_EQ(pipe.getConnectTimeout(), 10000);
    EXPECT_EQ(pipe.getReadTimeout(), 0);
}

TEST(QvPipe, HasThePrefixOfTheLocalPipeNamespace) {
    EXPECT_EQ(QvPipe::PIPE_NAME_PREFIX, "\\\\.\\pipe\\");
}

TEST(QvPipe, KeepsItsTimeouts) {
    QvPipe pipe;
    pipe.setConnectTimeout(17);
    pipe.setReadTimeout(18);
    EXPECT_EQ(pipe.getConnectTimeout(), 17);
    EXPECT_EQ(pipe.getReadTimeout(), 18);
}

TEST(QvPipeBind, NeedsADirectionAlsoOnABoundPipe) {
    QvPipe pipe;
    EXPECT_EQ(thrownBy([&] { pipe.bind("a", false, false); }), "IllegalArgumentException");
    EXPECT_FALSE(pipe.isBound());
    pipe.bind("a", true, false);
    EXPECT_EQ(thrownBy([&] { pipe.bind("a", false, false); }), "IllegalArgumentException");
}

TEST(QvPipeBind, HappensOnce) {
    QvPipe pipe;
    pipe.bind("a", true, true);
    EXPECT_TRUE(pipe.isBound());
    EXPECT_EQ(thrownBy([&] { pipe.bind("b", true, true); }), "IllegalStateException: Pipe is already bound.");
    EXPECT_EQ(thrownBy([&] { pipe.connect("b", true, true); }), "IllegalStateException: Pipe is already bound.");
}

TEST(QvPipeBind, LeavesAPipeUnboundByTheEmptyName) {
    QvPipe pipe;
    pipe.bind("", true, true);
    EXPECT_FALSE(pipe.isBound());
    EXPECT_EQ(thrownBy([&] { pipe.connect(); }), "IllegalStateException: Pipe not yet bound");
}

TEST(QvPipeConnect, NeedsAName) {
    QvPipe pipe;
    EXPECT_EQ(thrownBy([&] { pipe.connect(); }), "IllegalStateException: Pipe not yet bound");
}

TEST(QvPipeConnect, FailsAtOnceWhenNoServerHasCreatedTheName) {
    QvPipe pipe;
    pipe.setConnectTimeout(20000);
    const auto time = elapsed([&] {
        EXPECT_EQ(thrownBy([&] { pipe.connect(uniquePipeName(), true, true); }),
                  "ConnectException: Could not connect to pipe.");
    });
    EXPECT_LT(time, 2s);
    EXPECT_EQ(thrownBy([] { QvPipe(uniquePipeName(), true, true); }), "ConnectException: Could not connect to pipe.");
}

TEST(QvPipeConnect, TimesOutWhenEveryInstanceIsBusy) {
    const std::string name = uniquePipeName();
    ServerQvPipe server(name, true, true);
    QvPipe first(name, true, true);
    QvPipe second;
    second.setConnectTimeout(200);
    const auto time = elapsed([&] {
        EXPECT_EQ(thrownBy([&] { second.connect(name, true, true); }),
                  "TimeoutException: Timed out connecting to pipe");
    });
    EXPECT_GE(time, 195ms);
}

TEST(QvPipeConnect, IsDeniedADirectionThatTheServerDoesNotOffer) {
    const std::string name = uniquePipeName();
    ServerQvPipe server(name, true, false);
    EXPECT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "ConnectException: Access denied.");
}

TEST(QvPipeConnect, HasNoLimitByItsThreeArgumentConstructor) {
    const std::string name = uniquePipeName();
    ServerQvPipe server(name, true, true);
    const QvPipe pipe(name, true, true);
    EXPECT_EQ(pipe.getConnectTimeout(), 0);
    EXPECT_EQ(pipe.getReadTimeout(), 0);
}

/// A server and a connected client.
class ConnectedPipe : public ::testing::Test {
  protected:
    void SetUp() override {
        client.connect(name, true, true);
        server.accept(accepted);
    }

    static std::string readFrom(QvPipe& pipe, int length = 100, int timeoutMs = 5000) {
        std::string data(static_cast<std::size_t>(length), '\0');
        const int count = pipe.readPipe(&data[0], 0, length, timeoutMs);
        if (count < 0) return std::to_string(count);
        data.resize(static_cast<std::size_t>(count));
        return data;
    }
    static void writeTo(QvPipe& pipe, const std::string& data) {
        pipe.writePipe(data.data(), 0, static_cast<int>(data.size()));
    }

    const std::string name = uniquePipeName();
    ServerQvPipe server{name, true, true};
    QvPipe client;
    QvPipe accepted;
};

TEST_F(ConnectedPipe, CarriesBytesBothWaysWithOffsets) {
    client.writePipe("..abc", 2, 3);
    char buffer[] = "-----";
    EXPECT_EQ(accepted.readPipe(buffer, 1, 4, 5000), 3);
    EXPECT_STREQ(buffer, "-abc-");
    writeTo(accepted, "back");
    EXPECT_EQ(readFrom(client), "back");
}

TEST_F(ConnectedPipe, TimesOutReading) {
    const auto time = elapsed(
        [&] { EXPECT_EQ(thrownBy([&] { readFrom(client, 10, 100); }), "TimeoutException: QvPipe read timeout."); });
    EXPECT_GE(time, 95ms);
}

TEST_F(ConnectedPipe, ReturnsMinusOneWhenThePeerClosesDuringTheRead) {
    auto reading = inBackground([&] { return readFrom(client, 10, 0); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    accepted.close();
    EXPECT_EQ(reading.get(), "-1");
}

TEST_F(ConnectedPipe, FailsToReadWhenThePeerHadClosed) {
    accepted.close();
    EXPECT_EQ(thrownBy([&] { readFrom(client); }), "QvPipeException: QvPipe read failed.");
}

TEST_F(ConnectedPipe, FindsThePipeBrokenWhenWritingToAPeerThatHasClosed) {
    accepted.close();
    EXPECT_EQ(thrownBy([&] { writeTo(client, "x"); }), "BrokenPipeException: Pipe was closed at other end.");
}

TEST_F(ConnectedPipe, FailsAfterItsOwnClose) {
    client.close();
    EXPECT_TRUE(client.isBound());
    EXPECT_EQ(thrownBy([&] { readFrom(client); }), "QvPipeException: QvPipe read failed.");
    EXPECT_EQ(thrownBy([&] { writeTo(client, "x"); }), "QvPipeException: Pipe write failed");
}

TEST_F(ConnectedPipe, WritesNothingWithoutTouchingThePipe) {
    client.close();
    EXPECT_EQ(thrownBy([&] { client.writePipe(nullptr, 0, 0); }), "nothing");
}

TEST_F(ConnectedPipe, InterruptsAReadThatIsPendingWhenItCloses) {
    auto reading = inBackground([&] { return thrownBy([&] { readFrom(client, 10, 0); }); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    client.close();
    EXPECT_EQ(reading.get(), "InterruptedException: QvPipe read aborted.");
}

TEST_F(ConnectedPipe, InterruptsAWriteThatIsPendingWhenItCloses) {
    auto writing =
        std::async(std::launch::async, [&] { return thrownBy([&] { writeTo(client, std::string(4 << 20, 'x')); }); });
    EXPECT_EQ(readFrom(accepted, 1), "x");  // it has begun, and cannot complete
    client.close();
    EXPECT_EQ(writing.get(), "InterruptedException: Pipe write aborted.");
}

TEST_F(ConnectedPipe, TimesOutWritingAfterTenSeconds) {
    const auto time = elapsed([&] {
        EXPECT_EQ(thrownBy([&] { writeTo(client, std::string(1 << 20, 'x')); }),
                  "TimeoutException: Pipe write timed out");
    });
    EXPECT_GE(time, 9990ms);
}

TEST_F(ConnectedPipe, ConnectsAgainAfterAClose) {
    client.close();
    EXPECT_EQ(thrownBy([&] { client.connect(); }), "nothing");
    QvPipe again;
    server.accept(again);
    writeTo(client, "again");
    EXPECT_EQ(readFrom(again), "again");
}

TEST_F(ConnectedPipe, LeavesItsFirstConnectionOpenWhenItConnectsAgain) {
    const QvPipe first(client);  // closes that connection at the end
    client.connect();
    EXPECT_EQ(thrownBy([&] { readFrom(accepted, 1, 50); }), "TimeoutException: QvPipe read timeout.");
    QvPipe second;
    server.accept(second);
    writeTo(client, "x");
    EXPECT_EQ(readFrom(second), "x");
}

TEST_F(ConnectedPipe, SharesItsConnectionWithCopies) {
    QvPipe copy(client);
    writeTo(copy, "from the copy");
    EXPECT_EQ(readFrom(accepted), "from the copy");
    copy.close();
    EXPECT_EQ(thrownBy([&] { writeTo(client, "x"); }), "QvPipeException: Pipe write failed");
}

TEST_F(ConnectedPipe, CopiesEveryField) {
    client.setReadTimeout(5);
    client.setConnectTimeout(6);
    std::istream* const in = client.getInputStream();
    QvPipe constructed(client);
    QvPipe assigned;
    assigned = client;
    for (QvPipe* copy : {&constructed, &assigned}) {
        EXPECT_TRUE(copy->isBound());
        EXPECT_EQ(copy->getReadTimeout(), 5);
        EXPECT_EQ(copy->getConnectTimeout(), 6);
        EXPECT_EQ(copy->getInputStream(), in);
    }
}

TEST_F(ConnectedPipe, ClosesTheConnectionWithItsFirstCopyThatGoes) {
    { QvPipe copy(client); }
    EXPECT_EQ(thrownBy([&] { writeTo(client, "x"); }), "QvPipeException: Pipe write failed");
}

// ---- Streams ----

TEST(QvPipeStreams, NeedTheirDirection) {
    QvPipe reader, writer, unbound;
    reader.bind("a", true, false);
    writer.bind("a", false, true);
    EXPECT_EQ(thrownBy([&] { writer.getInputStream(); }), "IllegalStateException: Pipe is not bound with read access.");
    EXPECT_EQ(thrownBy([&] { reader.getOutputStream(); }),
              "IllegalStateException: Pipe is not bound with write access.");
    EXPECT_EQ(thrownBy([&] { unbound.getInputStream(); }),
              "IllegalStateException: Pipe is not bound with read access.");
    EXPECT_EQ(thrownBy([&] { unbound.getOutputStream(); }),
              "IllegalStateException: Pipe is not bound with write access.");
}

TEST_F(ConnectedPipe, HandsOutTheSameStreamsEachTimeThrowingOnBadbitAlone) {
    EXPECT_EQ(client.getInputStream(), client.getInputStream());
    EXPECT_EQ(client.getOutputStream(), client.getOutputStream());
    EXPECT_EQ(client.getInputStream()->exceptions(), std::ios_base::badbit);
    EXPECT_EQ(client.getOutputStream()->exceptions(), std::ios_base::badbit);
}

TEST_F(ConnectedPipe, LetsTheExceptionsOfThePipeThroughItsStreams) {
    client.setReadTimeout(50);
    std::string line;
    EXPECT_EQ(thrownBy([&] { std::getline(*client.getInputStream(), line); }),
              "TimeoutException: QvPipe read timeout.");
    accepted.close();
    char area[16];
    client.getOutputStream()->rdbuf()->pubsetbuf(area, sizeof area);
    *client.getOutputStream() << "x";
    EXPECT_EQ(thrownBy([&] { client.getOutputStream()->flush(); }),
              "BrokenPipeException: Pipe was closed at other end.");
}

TEST_F(ConnectedPipe, KeepsStreamsUsableForCopiesThatOutliveTheOriginal) {
    auto original = std::make_unique<QvPipe>(client);
    std::istream& in = *original->getInputStream();
    const QvPipe copy(*original);
    original.reset();
    EXPECT_EQ(thrownBy([&] { in.get(); }), "QvPipeException: QvPipe read failed.");
}

TEST_F(ConnectedPipe, GivesACopyTheStreamOfAnOriginalThatHasGone) {
    auto original = std::make_unique<QvPipe>(client);
    std::istream* const in = original->getInputStream();
    QvPipe copy(*original);
    original.reset();
    copy.connect();
    QvPipe other;
    server.accept(other);
    writeTo(other, "x");
    EXPECT_EQ(copy.getInputStream(), in);
    EXPECT_EQ(in->get(), 'x');
}

TEST_F(ConnectedPipe, GivesACopyTheOutputStreamOfAnOriginalThatHasGone) {
    auto original = std::make_unique<QvPipe>(client);
    std::ostream* const out = original->getOutputStream();
    QvPipe copy(*original);
    original.reset();
    copy.connect();
    QvPipe other;
    server.accept(other);
    char area[16];
    EXPECT_EQ(copy.getOutputStream(), out);
    out->rdbuf()->pubsetbuf(area, sizeof area);
    *out << 'x' << std::flush;
    EXPECT_EQ(other.getInputStream()->get(), 'x');
}

TEST_F(ConnectedPipe, KeepsNoBufferAreaThatItsOwnerFreed) {
    auto original = std::make_unique<QvPipe>(client);
    auto area = std::make_unique<char[]>(16);
    std::istream* const in = original->getInputStream();
    in->rdbuf()->pubsetbuf(area.get(), 16);
    writeTo(accepted, "abcdef");
    EXPECT_EQ(in->get(), 'a');
    const QvPipe copy(*original);
    original.reset();
    area.reset();
    EXPECT_EQ(thrownBy([&] { in->get(); }), "QvPipeException: QvPipe read failed.");
}

TEST_F(ConnectedPipe, KeepsItsStreamWhenACopyIsAssignedBack) {
    std::istream* const in = client.getInputStream();
    const QvPipe copy(client);
    client = copy;
    writeTo(accepted, "x");
    EXPECT_EQ(in->get(), 'x');
}

TEST_F(ConnectedPipe, KeepsWhatItsOutputStreamHoldsWhenACopyIsAssignedBack) {
    char area[16];
    std::ostream* const out = client.getOutputStream();
    out->rdbuf()->pubsetbuf(area, sizeof area);
    *out << 'x';
    const QvPipe copy(client);
    client = copy;
    out->flush();
    accepted.setReadTimeout(5000);
    EXPECT_EQ(accepted.getInputStream()->get(), 'x');
}

TEST_F(ConnectedPipe, WritesNothingIntoAnAreaThatItsOwnerFreed) {
    auto original = std::make_unique<QvPipe>(client);
    char area[16] = {};
    std::ostream* const out = original->getOutputStream();
    out->rdbuf()->pubsetbuf(area, sizeof area);
    const QvPipe copy(*original);
    original.reset();
    EXPECT_NE(thrownBy([&] { out->put('x'); }), "nothing");
    EXPECT_EQ(area[0], 0);
}

/// Copies that have used their streams, and end on two threads at once.
TEST_F(ConnectedPipe, EndsWithItsLastCopyOnWhateverThreads) {
    for (int round = 0; round < 300; ++round) {
        char areas[2][16];
        auto original = std::make_unique<QvPipe>(client);
        original->getInputStream()->rdbuf()->pubsetbuf(areas[0], sizeof areas[0]);
        original->getOutputStream()->rdbuf()->pubsetbuf(areas[1], sizeof areas[1]);
        *original->getOutputStream() << "pending";
        auto copy = std::make_unique<QvPipe>(*original);
        auto third = std::make_unique<QvPipe>(*copy);
        std::atomic<int> ready{0};
        const auto end = [&ready](std::unique_ptr<QvPipe>& pipe) {
            ++ready;
            while (ready < 2) std::this_thread::yield();
            pipe.reset();
        };
        std::thread other([&] {
            end(copy);
            third.reset();
        });
        end(original);
        other.join();
    }
}

// ---- Log lines ----

TEST_F(ConnectedPipe, ClosesInItsDestructorWithOneLine) {
    auto pipe = std::make_unique<QvPipe>();
    LogCapture log;
    pipe.reset();
    EXPECT_THAT(log.messages(), ::testing::ElementsAre(::testing::StartsWith("DEBUG Close Handles: handle=0xffff")));
}

TEST(QvPipe, StaysAsItIsWhenItIsAssignedToItself) {
    const std::string name = uniquePipeName();
    ServerQvPipe server(name, true, true);
    const ServerQvPipe& sameServer = server;
    server = sameServer;
    QvPipe pipe(name, true, true);
    const QvPipe& same = pipe;
    pipe = same;
    QvPipe peer;
    server.accept(peer);
    pipe.writePipe("x", 0, 1);
    char byte = 0;
    EXPECT_EQ(peer.readPipe(&byte, 0, 1, 20000), 1);
    EXPECT_EQ(byte, 'x');
}

TEST(QvPipe, WritesWithTheStreamOfThePipeThatIsAssigned) {
    const std::string name = uniquePipeName();
    ServerQvPipe server(name, true, true);
    QvPipe first(name, true, true);
    QvPipe firstPeer, secondPeer;
    server.accept(firstPeer);
    QvPipe second(name, true, true);
    server.accept(secondPeer);
    first.getOutputStream();
    std::ostream* const out = second.getOutputStream();
    first = second;
    EXPECT_EQ(first.getOutputStream(), out);
}

}  // namespace
}  // namespace qvtp_test
