#include "message/QvtpIStream.h"

#include <gtest/gtest.h>

#include <istream>
#include <iterator>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace {

using namespace Quovane::Internal::Qvtp;

std::string all(std::istream& in) {
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Gives some bytes, then fails with an exception.
class BreakingStreamBuf : public std::streambuf {
  public:
    explicit BreakingStreamBuf(std::string bytes) : bytes_(std::move(bytes)) {
        setg(&bytes_[0], &bytes_[0], &bytes_[0] + bytes_.size());
    }

  private:
    int_type underflow() override { throw std::runtime_error("broken"); }
    std::string bytes_;
};

TEST(IStreamBuffer, RefillsItsBufferInPiecesOfItsSize) {
    std::istringstream pipe("abcdefgNEXT");
    IStreamBuffer<char> buffer(3, 7, &pipe);
    EXPECT_EQ(buffer.sgetc(), 'a');
    EXPECT_EQ(buffer.in_avail(), 3);
    EXPECT_EQ(static_cast<long>(pipe.tellg()), 3);
    std::istream in(&buffer);
    EXPECT_EQ(all(in), "abcdefg");
    EXPECT_EQ(all(pipe), "NEXT");
}

TEST(IStreamBuffer, ReadsNothingBeforeItIsAsked) {
    std::istringstream pipe("abc");
    const IStreamBuffer<char> buffer(3, 3, &pipe);
    EXPECT_EQ(static_cast<long>(pipe.tellg()), 0);
}

TEST(IStreamBuffer, GivesTheByteOfAllOnesAsAByte) {
    std::istringstream pipe("\xFF\xFF");
    IStreamBuffer<char> buffer(1, 2, &pipe);
    EXPECT_EQ(buffer.sbumpc(), 0xFF);
    EXPECT_EQ(buffer.sbumpc(), 0xFF);
    EXPECT_EQ(buffer.sbumpc(), std::char_traits<char>::eof());
}

TEST(IStreamBuffer, UsesABufferSizeBelowOneAsOne) {
    for (const int size : {0, -1, std::numeric_limits<int>::min()}) {
        std::istringstream pipe("abc");
        IStreamBuffer<char> buffer(size, 3, &pipe);
        std::istream in(&buffer);
        EXPECT_EQ(all(in), "abc") << size;
    }
}

TEST(IStreamBuffer, ShowsItsBodyReader) {
    std::istringstream pipe("abc");
    IStreamBuffer<char> buffer(10, 3, &pipe);
    EXPECT_FALSE(buffer.input()->isComplete());
    buffer.sgetc();
    EXPECT_TRUE(buffer.input()->isComplete());
}

TEST(QvtpIStream, IsAtItsEndAtTheEndOfTheBody) {
    std::istringstream pipe("5\r\nhello\r\n0\r\n\r\nNEXT");
    QvtpIStream in(2, InputBuffer::CHUNKED, &pipe);
    EXPECT_EQ(all(in), "hello");
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    EXPECT_TRUE(in.eof());
    EXPECT_EQ(all(pipe), "NEXT");
}

TEST(QvtpIStream, IsAtItsEndAtOnceForAnEmptyBody) {
    std::istringstream pipe("NEXT");
    QvtpIStream in(2, 0, &pipe);
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    EXPECT_EQ(all(pipe), "NEXT");
}

TEST(QvtpIStream, HasBadbitAndNothingElseInItsExceptionMask) {
    std::istringstream pipe;
    EXPECT_EQ(QvtpIStream(2, 0, &pipe).exceptions(), std::ios_base::badbit);
}

TEST(QvtpIStream, LetsTheFailureOfThePipeReachItsReader) {
    BreakingStreamBuf broken("ab");
    std::istream pipe(&broken);
    pipe.exceptions(std::ios_base::badbit);
    QvtpIStream in(2, 10, &pipe);
    std::string word;
    EXPECT_THROW(in >> word, std::runtime_error);
    EXPECT_TRUE(in.bad());
}

TEST(QvtpIStream, SharesItsBodyReaderBeyondItsLife) {
    std::istringstream pipe("abc");
    std::shared_ptr<InputBuffer> reader;
    {
        QvtpIStream in(2, 3, &pipe);
        in.get();
        reader = in.input();
    }
    EXPECT_FALSE(reader->isComplete());
    std::uint64_t budget = 10;
    EXPECT_TRUE(reader->skipSome(budget));
    EXPECT_TRUE(reader->isComplete());
}

}  // namespace
