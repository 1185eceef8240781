#include "message/QvtpOStream.h"

#include "message/OutgoingMessage.h"
#include "support/FailingStreamBuf.h"
#include "support/HasForm.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ios>
#include <ostream>
#include <sstream>
#include <string>

namespace {

using namespace Quovane::Internal::Qvtp;
using namespace qvtp_test;
using ::testing::ElementsAre;

const char HEAD[] = "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";

class BodyStream : public ::testing::Test {
  protected:
    BodyStream() { message_.addHeader("Transfer-Encoding", "chunked"); }
    std::string wire() const { return pipe_.str(); }

    std::ostringstream pipe_;
    OutgoingMessage message_;
};

TEST_F(BodyStream, HasBadbitAndNothingElseInItsExceptionMask) {
    EXPECT_EQ(QvtpOStream(4, true, &pipe_, nullptr).exceptions(), std::ios_base::badbit);
}

TEST_F(BodyStream, WritesALengthFramedBodyAsItIs) {
    QvtpOStream out(4, false, &pipe_, nullptr);
    out << "hello" << 12;
    out.send();
    EXPECT_EQ(wire(), "hello12");
}

TEST_F(BodyStream, WritesAChunkedBodyInChunksOfTheBufferSize) {
    QvtpOStream out(4, true, &pipe_, nullptr);
    out << "hello" << 12;
    out.send();
    EXPECT_EQ(wire(), "4\r\nhell\r\n3\r\no12\r\n0\r\n\r\n");
}

TEST_F(BodyStream, WritesNoHeadUntilTheFirstByte) {
    QvtpOStream out(100, true, &pipe_, message_.impl());
    out << std::flush;
    EXPECT_EQ(wire(), "");
    EXPECT_FALSE(message_.isCommitted());
    out << 'x';
    EXPECT_EQ(wire(), HEAD);
    EXPECT_TRUE(message_.isCommitted());
}

TEST_F(BodyStream, SendsHeadersThatWereSetBeforeTheFirstByte) {
    QvtpOStream out(100, true, &pipe_, message_.impl());
    message_.addHeader("X", "early");
    out << 'x';
    message_.addHeader("X", "late");
    out.send();
    EXPECT_EQ(wire(), "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\nX: early\r\n\r\n1\r\nx\r\n0\r\n\r\n");
}

TEST_F(BodyStream, SendsHeadAndLastChunkOfAMessageThatNothingWasWrittenInto) {
    QvtpOStream out(100, true, &pipe_, message_.impl());
    out.send();
    EXPECT_EQ(wire(), std::string(HEAD) + "0\r\n\r\n");
    EXPECT_TRUE(message_.isCommitted());
}

TEST_F(BodyStream, SendsNothingForAnEmptyBodyOfKnownLength) {
    QvtpOStream out(100, false, &pipe_, nullptr);
    out.send();
    EXPECT_EQ(wire(), "");
}

TEST_F(BodyStream, SendsWhatThereIsOfAChunkedBodyOnFlush) {
    QvtpOStream out(100, true, &pipe_, message_.impl());
    out << "hello" << std::flush;
    EXPECT_EQ(wire(), std::string(HEAD) + "5\r\nhello\r\n");
    out << std::flush;
    EXPECT_EQ(wire(), std::string(HEAD) + "5\r\nhello\r\n");
}

TEST_F(BodyStream, HoldsBackABodyOfKnownLengthOnFlush) {
    QvtpOStream out(100, false, &pipe_, nullptr);
    out << "hello" << std::flush;
    EXPECT_EQ(wire(), "");
    out.send();
    EXPECT_EQ(wire(), "hello");
}

TEST_F(BodyStream, PutsHeadAndBodyOfKnownLengthIntoOneBuffer) {
    const LogCapture log(LogCapture::LoggingLevel::INFO);
    OutgoingMessage message;
    message.setBody("hello");
    QvtpOStream out(1000, false, &pipe_, nullptr);
    message->writeHeaders(&out);
    message->writeBody(&out);
    EXPECT_EQ(wire(), "");
    out.send();
    EXPECT_EQ(wire(), "POST /r QVTP/1.0\r\nContent-Length: 5\r\n\r\nhello");
    EXPECT_THAT(log.messages(), ElementsAre(HasForm("INFO Wrote 44 bytes to the QvPipe \\([-+e.0-9]+ Mbps\\)\\.")));
}

TEST_F(BodyStream, ThrowsIntoAWriterThatGoesOnAfterTheMessageWasSent) {
    QvtpOStream out(100, true, &pipe_, nullptr);
    out << "hello";
    out.send();
    const std::string sent = wire();
    EXPECT_EQ(thrownBy([&] { out << "more"; }),
              "QvPipeException: Atempt to write to the QvPipe  after the message has been sent.");
    EXPECT_TRUE(out.bad());
    EXPECT_EQ(wire(), sent);
}

TEST_F(BodyStream, FlushesThePipeWhenItSends) {
    FailingStreamBuf counted(1000);
    std::ostream pipe(&counted);
    QvtpOStream out(100, false, &pipe, nullptr);
    out.send();
    EXPECT_GE(counted.operations(), 1);
    EXPECT_EQ(counted.written(), "");
}

TEST_F(BodyStream, ReportsTheFailureOfAPipeThatDoesNotThrow) {
    FailingStreamBuf failing(1, Failure::REPORTS);
    std::ostream pipe(&failing);
    QvtpOStream out(100, false, &pipe, nullptr);
    out << "hello";
    EXPECT_THROW(out.send(), std::ios_base::failure);
}

TEST_F(BodyStream, UsesABufferSizeBelowOneAsOne) {
    QvtpOStream out(0, true, &pipe_, nullptr);
    out << "ab";
    out.send();
    EXPECT_EQ(wire(), "1\r\na\r\n1\r\nb\r\n0\r\n\r\n");
}

TEST_F(BodyStream, RecordsHeadAndBodyOfAMessageInTheCommunicationLog) {
    const LogCapture log(LogCapture::LoggingLevel::INFO, LogCapture::CommunicationLevel::OUTPUT);
    QvtpOStream out(2, true, &pipe_, message_.impl());
    out << "hello";
    out.send();
    EXPECT_EQ(log.communication().substr(84), std::string(HEAD) + "hello\n");
}

}  // namespace
