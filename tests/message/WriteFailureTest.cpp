#include "message/OutgoingMessage.h"
#include "message/QvtpOStream.h"
#include "support/FailingStreamBuf.h"

#include <gtest/gtest.h>

#include <functional>
#include <ios>
#include <ostream>
#include <string>

namespace {

using namespace Quovane::Internal::Qvtp;
using namespace qvtp_test;

/// One way to write a whole message.
struct WritePath {
    const char* name;
    std::function<void(std::ostream& pipe)> write;
};

void PrintTo(const WritePath& path, std::ostream* out) {
    *out << path.name;
}

const std::string BODY = "0123456789abc";

/// As a request with a whole body goes: the head straight onto the pipe, the body through a buffer.
void writeHeadThenBody(std::ostream& pipe) {
    OutgoingMessage message;
    message.setBody(BODY);
    message->writeHeaders(&pipe);
    QvtpOStream out(4, false, &pipe, nullptr);
    message->writeBody(&out);
    out.send();
}

/// As a response with a whole body goes: head and body through one buffer.
void writeHeadAndBodyTogether(std::ostream& pipe) {
    OutgoingMessage message;
    message.setBody(BODY);
    QvtpOStream out(16, false, &pipe, nullptr);
    message->writeHeaders(&out);
    message->writeBody(&out);
    out.send();
}

/// As a response with a body stream goes: the head at the first byte, the body in chunks.
void writeChunks(std::ostream& pipe) {
    OutgoingMessage message;
    message.addHeader("Transfer-Encoding", "chunked");
    QvtpOStream out(4, true, &pipe, message.impl());
    out << BODY;
    out.send();
}

void writeChunksWithFlushes(std::ostream& pipe) {
    OutgoingMessage message;
    message.addHeader("Transfer-Encoding", "chunked");
    QvtpOStream out(100, true, &pipe, message.impl());
    out << "01234" << std::flush << "56789" << std::flush << "abc";
    out.send();
}

void writeChunksByteByByte(std::ostream& pipe) {
    OutgoingMessage message;
    message.addHeader("Transfer-Encoding", "chunked");
    QvtpOStream out(1, true, &pipe, message.impl());
    for (const char c : BODY) out.put(c);
    out.send();
}

void writeNoChunks(std::ostream& pipe) {
    OutgoingMessage message;
    message.addHeader("Transfer-Encoding", "chunked");
    QvtpOStream out(4, true, &pipe, message.impl());
    out.send();
}

class WriteFailure : public ::testing::TestWithParam<WritePath> {
  protected:
    /// Writes onto a pipe whose Nth operation fails and returns whether the writer learned of it.
    bool writeFailingAt(int operation, Failure failure, std::ios_base::iostate mask) {
        FailingStreamBuf buffer(operation, failure);
        std::ostream pipe(&buffer);
        pipe.exceptions(mask);
        bool learned = false;
        try {
            GetParam().write(pipe);
        } catch (const InjectedFailure&) {
            learned = true;
        } catch (const std::ios_base::failure&) {
            learned = true;
        }
        written_ = buffer.written();
        operations_ = buffer.operations();
        return learned;
    }

    /// Fails every operation in turn.
    void expectEveryFailureToArrive(Failure failure, std::ios_base::iostate mask) {
        ASSERT_FALSE(writeFailingAt(1000000, failure, mask));
        const std::string right = written_;
        const int operations = operations_;
        ASSERT_GT(operations, 1);
        for (int n = 1; n <= operations; ++n) {
            EXPECT_TRUE(writeFailingAt(n, failure, mask)) << "operation " << n << " of " << operations;
            EXPECT_EQ(written_, right.substr(0, written_.size())) << "operation " << n;
            // Only the last flush fails with everything written.
            EXPECT_TRUE(written_.size() < right.size() || n >= operations - 1) << "operation " << n;
        }
    }

    std::string written_;
    int operations_ = 0;
};

TEST_P(WriteFailure, ReachesTheWriterFromAPipeThatThrows) {
    expectEveryFailureToArrive(Failure::THROWS, std::ios_base::badbit);
}

TEST_P(WriteFailure, ReachesTheWriterFromAPipeThatReportsToAStreamThatThrows) {
    expectEveryFailureToArrive(Failure::REPORTS, std::ios_base::badbit);
}

TEST_P(WriteFailure, ReachesTheWriterFromAPipeThatOnlyReports) {
    expectEveryFailureToArrive(Failure::REPORTS, std::ios_base::goodbit);
}

TEST_P(WriteFailure, ReachesTheWriterFromAPipeThatThrowsIntoAStreamThatDoesNot) {
    expectEveryFailureToArrive(Failure::THROWS, std::ios_base::goodbit);
}

const WritePath PATHS[] = {
    {"HeadThenBody", writeHeadThenBody},
    {"HeadAndBodyTogether", writeHeadAndBodyTogether},
    {"Chunks", writeChunks},
    {"ChunksWithFlushes", writeChunksWithFlushes},
    {"ChunksByteByByte", writeChunksByteByByte},
    {"NoChunks", writeNoChunks},
};

INSTANTIATE_TEST_SUITE_P(On, WriteFailure, ::testing::ValuesIn(PATHS),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(WriteFailureOfTheHead, LeavesTheMessageUncommitted) {
    for (int operation = 1; operation <= 2; ++operation) {
        FailingStreamBuf buffer(operation);
        std::ostream pipe(&buffer);
        pipe.exceptions(std::ios_base::badbit);
        OutgoingMessage message;
        EXPECT_THROW(message->writeHeaders(&pipe), InjectedFailure);
        EXPECT_FALSE(message.isCommitted());
    }
}

}  // namespace
