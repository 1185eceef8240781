#include "common/OBufferWriter.h"

#include "support/FailingStreamBuf.h"
#include "support/VirtualSlot.h"
#include "support/WriteRecorder.h"

#include <gtest/gtest.h>

#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Quovane::Soa::Internal::Common::OBufferWriter;
using Quovane::Soa::Internal::Common::OWriter;
using qvtp_test::virtualSlot;

class BufferWriter : public ::testing::Test {
  protected:
    int write(OBufferWriter& writer, const std::string& data) {
        return writer.write(data.data(), static_cast<long long>(data.size()));
    }
    std::string wire() const {
        std::string all;
        for (const std::string& event : recorded_.events) {
            if (event != "<flush>") all += event;
        }
        return all;
    }
    std::vector<std::string> events() const { return recorded_.events; }

    qvtp_test::WriteRecorder recorded_;
    std::ostream out_{&recorded_};
};

using Events = std::vector<std::string>;

TEST(OWriter, OffersWriteFlushAndSendInThisOrderAfterItsDestructor) {
    EXPECT_EQ(virtualSlot(&OWriter::write), 1);
    EXPECT_EQ(virtualSlot(&OWriter::flush), 2);
    EXPECT_EQ(virtualSlot(&OWriter::send), 3);
}

TEST_F(BufferWriter, HoldsBackWhatDoesNotFillTheBuffer) {
    OBufferWriter writer(&out_, 4, false);
    EXPECT_EQ(write(writer, "abc"), 3);
    EXPECT_EQ(events(), Events());
}

TEST_F(BufferWriter, PassesTheBufferOnWhenItIsFull) {
    OBufferWriter writer(&out_, 4, false);
    write(writer, "abc");
    write(writer, "d");
    EXPECT_EQ(events(), Events({"abcd"}));
}

TEST_F(BufferWriter, PassesALargeBlockOnInPiecesOfTheBufferSize) {
    OBufferWriter writer(&out_, 4, false);
    EXPECT_EQ(write(writer, "abcdefghij"), 10);
    EXPECT_EQ(events(), Events({"abcd", "efgh"}));
    writer.flush();
    EXPECT_EQ(events(), Events({"abcd", "efgh", "ij", "<flush>"}));
}

TEST_F(BufferWriter, PassesWholePiecesOnOutOfTheCallersMemory) {
    const std::string data = "abcdefghij";
    OBufferWriter writer(&out_, 4, false);
    write(writer, data);
    EXPECT_EQ(recorded_.sources, std::vector<const char*>({data.data(), data.data() + 4}));
}

TEST_F(BufferWriter, CutsTheSamePiecesHoweverTheBytesArrive) {
    const std::string data = "abcdefghijklmnopq";
    for (std::size_t step = 1; step <= data.size(); ++step) {
        recorded_.events.clear();
        OBufferWriter writer(&out_, 4, false);
        for (std::size_t i = 0; i < data.size(); i += step) write(writer, data.substr(i, step));
        writer.send();
        EXPECT_EQ(events(), Events({"abcd", "efgh", "ijkl", "mnop", "q", "<flush>"})) << step;
    }
}

TEST_F(BufferWriter, SendsExactMultiplesOfTheBufferWithoutAnEmptyPiece) {
    OBufferWriter writer(&out_, 4, false);
    write(writer, "abcdefgh");
    writer.send();
    EXPECT_EQ(events(), Events({"abcd", "efgh", "<flush>"}));
}

TEST_F(BufferWriter, WritesEveryByteOfABufferOfOneAtOnce) {
    OBufferWriter writer(&out_, 1, false);
    write(writer, "abc");
    EXPECT_EQ(events(), Events({"a", "b", "c"}));
}

TEST_F(BufferWriter, UsesABufferSizeBelowOneAsOne) {
    for (const int size : {0, -1, std::numeric_limits<int>::min()}) {
        recorded_.events.clear();
        OBufferWriter writer(&out_, size, true);
        write(writer, "ab");
        writer.send();
        EXPECT_EQ(wire(), "1\r\na\r\n1\r\nb\r\n0\r\n\r\n") << size;
    }
}

TEST_F(BufferWriter, FramesEveryFullBufferAsOneChunk) {
    OBufferWriter writer(&out_, 4, true);
    write(writer, "abcdefghij");
    EXPECT_EQ(wire(), "4\r\nabcd\r\n4\r\nefgh\r\n");
    writer.send();
    EXPECT_EQ(wire(), "4\r\nabcd\r\n4\r\nefgh\r\n2\r\nij\r\n0\r\n\r\n");
}

TEST_F(BufferWriter, CutsTheSameChunksHoweverTheBytesArrive) {
    const std::string data = "abcdefghijk";
    for (std::size_t step = 1; step <= data.size(); ++step) {
        recorded_.events.clear();
        OBufferWriter writer(&out_, 4, true);
        for (std::size_t i = 0; i < data.size(); i += step) write(writer, data.substr(i, step));
        writer.send();
        EXPECT_EQ(wire(), "4\r\nabcd\r\n4\r\nefgh\r\n3\r\nijk\r\n0\r\n\r\n") << step;
    }
}

TEST_F(BufferWriter, FramesExactMultiplesWithoutAnEarlyLastChunk) {
    OBufferWriter writer(&out_, 4, true);
    write(writer, "abcdefgh");
    writer.flush();
    writer.send();
    EXPECT_EQ(wire(), "4\r\nabcd\r\n4\r\nefgh\r\n0\r\n\r\n");
}

TEST_F(BufferWriter, WritesChunkSizesInLowerCaseHexadecimal) {
    OBufferWriter writer(&out_, 1000, true);
    write(writer, std::string(0xAB, 'x'));
    writer.flush();
    write(writer, std::string(1000, 'y'));
    EXPECT_EQ(wire(), "ab\r\n" + std::string(0xAB, 'x') + "\r\n3e8\r\n" + std::string(1000, 'y') + "\r\n");
}

TEST_F(BufferWriter, FlushesWhatIsBufferedAsAChunkOfItsOwn) {
    OBufferWriter writer(&out_, 100, true);
    write(writer, "abc");
    writer.flush();
    EXPECT_EQ(events().back(), "<flush>");
    EXPECT_EQ(wire(), "3\r\nabc\r\n");
}

TEST_F(BufferWriter, FlushesTheStreamAlsoWhenNothingIsBuffered) {
    OBufferWriter writer(&out_, 4, true);
    writer.flush();
    EXPECT_EQ(events(), Events({"<flush>"}));
}

TEST_F(BufferWriter, EndsAnEmptyChunkedMessageWithTheLastChunkOnly) {
    OBufferWriter writer(&out_, 4, true);
    writer.send();
    EXPECT_EQ(events(), Events({"0\r\n\r\n", "<flush>"}));
}

TEST_F(BufferWriter, EndsAPlainMessageWithAFlushOnly) {
    OBufferWriter writer(&out_, 4, false);
    writer.send();
    EXPECT_EQ(events(), Events({"<flush>"}));
}

TEST_F(BufferWriter, TakesNothingOfAnEmptyOrNegativeLength) {
    OBufferWriter writer(&out_, 4, true);
    EXPECT_EQ(writer.write("abc", 0), 0);
    EXPECT_EQ(writer.write("abc", -1), 0);
    EXPECT_EQ(writer.write(nullptr, 0), 0);
    writer.flush();
    EXPECT_EQ(wire(), "");
}

TEST_F(BufferWriter, CarriesEveryByteValue) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
    OBufferWriter writer(&out_, 256, true);
    write(writer, all);
    EXPECT_EQ(wire(), "100\r\n" + all + "\r\n");
}

TEST_F(BufferWriter, WritesNothingWhenItIsDestroyedUnsent) {
    {
        OBufferWriter writer(&out_, 4, true);
        write(writer, "abc");
    }
    EXPECT_EQ(events(), Events());
}

TEST_F(BufferWriter, LetsTheExceptionsOfItsStreamPass) {
    qvtp_test::FailingStreamBuf failing(1);
    std::ostream out(&failing);
    out.exceptions(std::ios_base::badbit);
    OBufferWriter writer(&out, 4, false);
    EXPECT_THROW(write(writer, "abcd"), qvtp_test::InjectedFailure);
}

}  // namespace
