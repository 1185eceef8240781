#include "common/OStreamBuffer.h"

#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Quovane::Soa::Internal::Common::OStreamBuffer;
using Quovane::Soa::Internal::Common::OWriter;
using Calls = std::vector<std::string>;

/// Keeps the calls that it gets.
class RecordingWriter : public OWriter {
  public:
    int write(const char* data, long long length) override {
        calls.push_back("write " + std::string(data == nullptr ? "" : data, static_cast<std::size_t>(length)));
        if (fails) throw std::runtime_error("writer");
        return static_cast<int>(length);
    }
    void flush() override { calls.emplace_back("flush"); }
    void send() override { calls.emplace_back("send"); }

    Calls calls;
    bool fails = false;
};

class WriterBuffer : public ::testing::Test {
  protected:
    RecordingWriter writer_;
    OStreamBuffer<char> buffer_{&writer_};
    std::ostream stream_{&buffer_};
};

TEST_F(WriterBuffer, GivesItsWriter) {
    EXPECT_EQ(buffer_.getWriter(), &writer_);
}

TEST_F(WriterBuffer, PassesBlocksAndSingleBytesOnAtOnce) {
    stream_.write("abc", 3);
    stream_.put('d');
    stream_ << 12;
    EXPECT_EQ(writer_.calls, Calls({"write abc", "write d", "write 12"}));
}

TEST_F(WriterBuffer, PassesTheByteOfAllOnesOn) {
    stream_.put('\xFF');
    EXPECT_EQ(writer_.calls, Calls({"write \xFF"}));
    EXPECT_TRUE(stream_.good());
}

TEST_F(WriterBuffer, CallsNobodyForAnEmptyBlock) {
    stream_.write("", 0);
    EXPECT_EQ(writer_.calls, Calls());
}

TEST_F(WriterBuffer, SendsAfterWhatWasWritten) {
    stream_ << "abc";
    buffer_.send();
    EXPECT_EQ(writer_.calls, Calls({"write abc", "send"}));
}

TEST_F(WriterBuffer, CallsAnUnusedWriterOnceWithNothingBeforeItSends) {
    buffer_.send();
    EXPECT_EQ(writer_.calls, Calls({"write ", "send"}));
}

TEST_F(WriterBuffer, KeepsAFlushOfTheStreamToItself) {
    stream_ << "abc" << std::flush;
    EXPECT_EQ(writer_.calls, Calls({"write abc"}));
    EXPECT_TRUE(stream_.good());
}

TEST_F(WriterBuffer, PassesAFlushOnWhenAskedTo) {
    OStreamBuffer<char> through(&writer_, true);
    std::ostream stream(&through);
    stream << "abc" << std::flush;
    EXPECT_EQ(writer_.calls, Calls({"write abc", "flush"}));
}

TEST_F(WriterBuffer, PassesNoFlushOnBeforeTheFirstByte) {
    OStreamBuffer<char> through(&writer_, true);
    std::ostream stream(&through);
    stream << std::flush;
    EXPECT_EQ(writer_.calls, Calls());
}

TEST_F(WriterBuffer, LetsFailuresOfTheWriterReachAStreamThatThrows) {
    writer_.fails = true;
    stream_.exceptions(std::ios_base::badbit);
    EXPECT_THROW(stream_ << "abc", std::runtime_error);
    EXPECT_TRUE(stream_.bad());
}

TEST_F(WriterBuffer, TakesAnEndForNothingToWrite) {
    struct Open : OStreamBuffer<char> {
        using OStreamBuffer::OStreamBuffer;
        using OStreamBuffer::overflow;
    } buffer(&writer_);
    EXPECT_NE(buffer.overflow(std::streambuf::traits_type::eof()), std::streambuf::traits_type::eof());
    EXPECT_EQ(writer_.calls, Calls());
}

}  // namespace
