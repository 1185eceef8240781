#include <qvtp/io/PipeBufferBase.h>

#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include "support/PipeName.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <future>
#include <istream>
#include <ostream>

namespace qvtp_test {
namespace {

using namespace Quovane::Io;
using namespace std::chrono_literals;
using Buffer = PipeBufferBase<char>;

constexpr auto END_OF_FILE = std::char_traits<char>::eof();

/// Shows what a full buffer does.
class OverflowingBuffer : public Buffer {
  public:
    using Buffer::Buffer;
    using Buffer::overflow;
};

class PipeBuffer : public ::testing::Test {
  protected:
    void SetUp() override {
        client.connect(name, true, true);
        server.accept(accepted);
    }

    /// What the peer has received, without waiting for more.
    std::string received() {
        char data[1000];
        try {
            return std::string(data, static_cast<std::size_t>(accepted.readPipe(data, 0, sizeof data, 100)));
        } catch (TimeoutException&) {
            return "";
        }
    }

    void send(const std::string& data) { accepted.writePipe(data.data(), 0, static_cast<int>(data.size())); }

    const std::string name = uniquePipeName();
    ServerQvPipe server{name, true, true};
    QvPipe client;
    QvPipe accepted;
    char area[4] = {};
};

TEST_F(PipeBuffer, HasAModeOfInputOrOutput) {
    for (int mode : {0, 3, -1, 8}) {
        EXPECT_EQ(thrownBy([&] { Buffer(&client, mode); }),
                  "QvPipeException: Mode must be either ios_base::in or ios_base::out");
    }
    EXPECT_EQ(thrownBy([&] { Buffer(&client, 1), Buffer(&client, 2); }), "nothing");
}

TEST_F(PipeBuffer, TakesABufferOnce) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    char large[4096];
    EXPECT_EQ(buffer.pubsetbuf(large, sizeof large), &buffer);
    EXPECT_EQ(thrownBy([&] { buffer.pubsetbuf(large, sizeof large); }),
              "QvPipeException: Buffer already set.  Reset not supported.");
}

TEST_F(PipeBuffer, TakesNoBufferAfterTheFirstUnbufferedRead) {
    Buffer buffer(&client, Buffer::INPUT_MODE);
    send("x");
    EXPECT_EQ(buffer.sbumpc(), 'x');
    EXPECT_EQ(thrownBy([&] { buffer.pubsetbuf(area, sizeof area); }),
              "QvPipeException: Buffer already set.  Reset not supported.");
}

TEST_F(PipeBuffer, RefusesToWriteToInput) {
    Buffer buffer(&client, Buffer::INPUT_MODE);
    const std::string expected = "QvPipeException: Illegal operation: writing to input stream.";
    EXPECT_EQ(thrownBy([&] { buffer.sputc('x'); }), expected);
    EXPECT_EQ(thrownBy([&] { buffer.sputn("x", 1); }), expected);
    EXPECT_EQ(buffer.pubsync(), 0);
}

TEST_F(PipeBuffer, RefusesToReadFromOutput) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    const std::string expected = "QvPipeException: Illegal operation: reading from output stream.";
    EXPECT_EQ(thrownBy([&] { buffer.sgetc(); }), expected);
    EXPECT_EQ(thrownBy([&] { buffer.sgetn(area, 1); }), expected);
}

TEST_F(PipeBuffer, WritesEachByteAtOnceWithoutABuffer) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    EXPECT_EQ(buffer.sputc('a'), 'a');
    EXPECT_EQ(received(), "a");
}

TEST_F(PipeBuffer, WritesABlockAtOnceWithoutABufferAndReturnsZero) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    EXPECT_EQ(buffer.sputn("block", 5), 0);
    EXPECT_EQ(received(), "block");
    EXPECT_EQ(buffer.pubsync(), 0);
}

TEST_F(PipeBuffer, MakesAnUnbufferedStreamBadByThat) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    std::ostream out(&buffer);
    out.write("block", 5);
    EXPECT_TRUE(out.bad());
    EXPECT_EQ(received(), "block");
}

TEST_F(PipeBuffer, HoldsBytesBackUntilItIsFull) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    buffer.pubsetbuf(area, sizeof area);
    EXPECT_EQ(buffer.sputn("abcd", 4), 4);
    EXPECT_EQ(received(), "");
    EXPECT_EQ(buffer.sputc('e'), 'e');
    EXPECT_EQ(received(), "abcd");
    EXPECT_EQ(buffer.pubsync(), 0);
    EXPECT_EQ(received(), "e");
}

TEST_F(PipeBuffer, WritesALongBlockInPiecesOfTheBuffer) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    buffer.pubsetbuf(area, sizeof area);
    EXPECT_EQ(buffer.sputn("0123456789", 10), 10);
    EXPECT_EQ(received(), "01234567");
    buffer.pubsync();
    EXPECT_EQ(received(), "89");
}

TEST_F(PipeBuffer, PlacesNothingFromNowhere) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    EXPECT_EQ(buffer.sputn(nullptr, 5), 0);
    EXPECT_EQ(buffer.sputn("x", 0), 0);
    EXPECT_EQ(received(), "");
}

TEST_F(PipeBuffer, HasNoRoomInABufferOfSizeZero) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    buffer.pubsetbuf(area, 0);
    EXPECT_EQ(buffer.sputc('x'), END_OF_FILE);
    EXPECT_EQ(buffer.sputn("xy", 2), 0);
}

TEST_F(PipeBuffer, WritesAByteForTheEndOfFileWithoutABuffer) {
    OverflowingBuffer buffer(&client, Buffer::OUTPUT_MODE);
    EXPECT_EQ(buffer.overflow(END_OF_FILE), END_OF_FILE);
    EXPECT_EQ(received(), "\xFF");
}

TEST_F(PipeBuffer, WritesOnlyWhatIsPendingForTheEndOfFileWithABuffer) {
    OverflowingBuffer buffer(&client, Buffer::OUTPUT_MODE);
    buffer.pubsetbuf(area, sizeof area);
    buffer.sputn("ab", 2);
    EXPECT_EQ(buffer.overflow(END_OF_FILE), END_OF_FILE);
    EXPECT_EQ(received(), "ab");
    buffer.pubsync();
    EXPECT_EQ(received(), "");
}

TEST_F(PipeBuffer, MakesNoCallToSyncNothing) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    buffer.pubsetbuf(area, sizeof area);
    client.close();
    EXPECT_EQ(buffer.pubsync(), 0);
}

TEST_F(PipeBuffer, ReadsOneByteAtATimeWithoutABuffer) {
    Buffer buffer(&client, Buffer::INPUT_MODE);
    send("abc");
    EXPECT_EQ(buffer.sbumpc(), 'a');
    char rest[10];
    EXPECT_EQ(client.readPipe(rest, 0, 10, 1000), 2);
}

TEST_F(PipeBuffer, ReadsAtMostItsSizeAtOnce) {
    Buffer buffer(&client, Buffer::INPUT_MODE);
    buffer.pubsetbuf(area, sizeof area);
    send("0123456789");
    EXPECT_EQ(buffer.sgetc(), '0');
    EXPECT_EQ(buffer.in_avail(), 4);
    char rest[10];
    EXPECT_EQ(client.readPipe(rest, 0, 10, 1000), 6);
}

TEST_F(PipeBuffer, ReadsBlocksAcrossRefills) {
    Buffer buffer(&client, Buffer::INPUT_MODE);
    buffer.pubsetbuf(area, sizeof area);
    send("0123456789");
    char block[10];
    EXPECT_EQ(buffer.sgetn(block, 10), 10);
    EXPECT_EQ(std::string(block, 10), "0123456789");
}

TEST_F(PipeBuffer, GivesBytesAbove127AsUnsignedValues) {
    Buffer buffer(&client, Buffer::INPUT_MODE);
    send("\xFF");
    EXPECT_EQ(buffer.sgetc(), 0xFF);
}

TEST_F(PipeBuffer, EndsWhenThePeerClosesDuringARead) {
    Buffer buffer(&client, Buffer::INPUT_MODE);
    auto reading = inBackground([&] { return buffer.sgetc(); });
    EXPECT_EQ(reading.wait_for(PENDING), std::future_status::timeout);
    accepted.close();
    EXPECT_EQ(reading.get(), END_OF_FILE);
    EXPECT_EQ(buffer.in_avail(), 0);
}

TEST_F(PipeBuffer, ReadsWithTheTimeoutOfThePipe) {
    Buffer buffer(&client, Buffer::INPUT_MODE);
    client.setReadTimeout(60);
    const auto time =
        elapsed([&] { EXPECT_EQ(thrownBy([&] { buffer.sgetc(); }), "TimeoutException: QvPipe read timeout."); });
    EXPECT_GE(time, 55ms);
}

TEST_F(PipeBuffer, SharesPipeAndAreaWithACopy) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    buffer.pubsetbuf(area, sizeof area);
    Buffer copy(buffer);
    copy.sputn("ab", 2);
    copy.pubsync();
    EXPECT_EQ(received(), "ab");
    EXPECT_EQ(std::string(area, 2), "ab");
}

TEST_F(PipeBuffer, SharesPipeAndAreaWithWhatItIsAssignedTo) {
    Buffer buffer(&client, Buffer::OUTPUT_MODE);
    buffer.pubsetbuf(area, sizeof area);
    Buffer assigned(&accepted, Buffer::INPUT_MODE);
    assigned = buffer;
    EXPECT_EQ(assigned.sputn("abcde", 5), 5);
    EXPECT_EQ(received(), "abcd");
    EXPECT_EQ(area[0], 'e');
}

}  // namespace
}  // namespace qvtp_test
