#include "message/QvtpMessageOutImpl.h"

#include "message/OutgoingMessage.h"
#include "support/HasForm.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"
#include "support/WriteRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Quovane::Internal::Qvtp;
using namespace qvtp_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string headOf(OutgoingMessage& message) {
    std::ostringstream out;
    message->writeHeaders(&out);
    return out.str();
}

std::string bodyOf(OutgoingMessage& message) {
    std::ostringstream out;
    message->writeBody(&out);
    return out.str();
}

TEST(QvtpMessageOutImplHead, IsTheStartLineAndAnEmptyLineWithoutHeaders) {
    OutgoingMessage message;
    EXPECT_EQ(headOf(message), "POST /r QVTP/1.0\r\n\r\n");
}

TEST(QvtpMessageOutImplHead, AsksItsOwnerForTheStartLine) {
    OutgoingMessage message("QVTP/1.0 414 Resource-ID Too Long ");
    EXPECT_EQ(message->getStartLine(), "QVTP/1.0 414 Resource-ID Too Long ");
    EXPECT_EQ(headOf(message), "QVTP/1.0 414 Resource-ID Too Long \r\n\r\n");
}

TEST(QvtpMessageOutImplHead, HasTheHeadersInKeyOrder) {
    OutgoingMessage message;
    message.addHeader("User-Agent", "agent");
    message.setBody("hello");
    message.setHeader("x", "a, b");
    message.addHeader("Gone", "1");
    message.removeHeader("gone");
    message.addHeader("Empty", "");
    EXPECT_EQ(headOf(message),
              "POST /r QVTP/1.0\r\nContent-Length: 5\r\nEmpty: \r\nUser-Agent: agent\r\nx: a,b\r\n\r\n");
}

TEST(QvtpMessageOutImplHead, GoesOutInOneWriteAndOneFlush) {
    OutgoingMessage message;
    message.addHeader("X", "1");
    WriteRecorder recorded;
    std::ostream out(&recorded);
    message->writeHeaders(&out);
    EXPECT_THAT(recorded.events, ElementsAre("POST /r QVTP/1.0\r\nX: 1\r\n\r\n", "<flush>"));
}

TEST(QvtpMessageOutImplHead, CommitsTheMessage) {
    OutgoingMessage message;
    message.setBody("hello");
    EXPECT_FALSE(message.isCommitted());
    headOf(message);
    EXPECT_TRUE(message.isCommitted());
}

TEST(QvtpMessageOutImplHead, CanBeWrittenAgain) {
    OutgoingMessage message;
    const std::string first = headOf(message);
    EXPECT_EQ(headOf(message), first);
    EXPECT_TRUE(message.isCommitted());
}

TEST(QvtpMessageOutImplHead, EncodesValuesSoThatNoneEndsItsLine) {
    OutgoingMessage message;
    message.addHeader("X", std::string("a\r\nInjected: 1\0\xE4", 16));
    EXPECT_EQ(headOf(message), "POST /r QVTP/1.0\r\nX: a  Injected: 1 \xC3\xA4\r\n\r\n");
}

TEST(QvtpMessageOutImplBody, IsUnknownUntilItIsSet) {
    OutgoingMessage message;
    EXPECT_FALSE(message->hasBody());
    EXPECT_EQ(message->getBodyLength(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(message->getBodyLength(), QvtpMessageOutImpl::NO_BODY);
    EXPECT_EQ(bodyOf(message), "");
}

TEST(QvtpMessageOutImplBody, IsACopyOfWhatWasGiven) {
    OutgoingMessage message;
    std::string given("he\0lo", 5);
    message.setBody(given);
    given = "XXXXX";
    EXPECT_TRUE(message->hasBody());
    EXPECT_EQ(message->getBodyLength(), 5U);
    EXPECT_EQ(bodyOf(message), std::string("he\0lo", 5));
}

TEST(QvtpMessageOutImplBody, OfLengthZeroHasAHeaderAndNoBytes) {
    OutgoingMessage message;
    message.setBody(nullptr, 0);
    EXPECT_TRUE(message->hasBody());
    EXPECT_EQ(message->getBodyLength(), 0U);
    EXPECT_EQ(bodyOf(message), "");
    EXPECT_EQ(headOf(message), "POST /r QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
}

TEST(QvtpMessageOutImplBody, SetTwiceLeavesBothLengthsAndTheSecondBody) {
    OutgoingMessage message;
    message.setBody("hello");
    message.setBody("bye");
    EXPECT_EQ(headOf(message), "POST /r QVTP/1.0\r\nContent-Length: 5,3\r\n\r\n");
    EXPECT_EQ(bodyOf(message), "bye");
    EXPECT_EQ(message->getBodyLength(), 3U);
}

TEST(QvtpMessageOutImplBody, MayNotBeLongerThanAReceiverCanRead) {
    OutgoingMessage message;
    const char byte = 'x';
    for (const std::size_t length : {std::size_t{2147483648U}, std::numeric_limits<std::size_t>::max()}) {
        EXPECT_EQ(thrownBy([&] { message.setBody(&byte, length); }), "IllegalArgumentException");
    }
    EXPECT_FALSE(message->hasBody());
    EXPECT_EQ(headOf(message), "POST /r QVTP/1.0\r\n\r\n");
}

TEST(QvtpMessageOutImplLog, ShowsTheStartLineAfterTheLabel) {
    for (const std::string& label : {DirectionLabel::SEND, DirectionLabel::REPLY}) {
        const LogCapture log;
        OutgoingMessage message("POST /r QVTP/1.0", label);
        headOf(message);
        EXPECT_THAT(log.messages(), ElementsAre("DEBUG " + label + "POST /r QVTP/1.0"));
    }
}

TEST(QvtpMessageOutImplLog, ShowsNothingAtInfo) {
    const LogCapture log(LogCapture::LoggingLevel::INFO);
    OutgoingMessage message;
    headOf(message);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(QvtpMessageOutImplLog, RecordsTheHeadByteForByteAfterItsHeaderLine) {
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::OUTPUT);
    OutgoingMessage message;
    message.addHeader("X", "1");
    const std::string head = headOf(message);
    const std::string record = log.communication();
    EXPECT_THAT(record.substr(0, 84), HasForm("[-0-9]+ [:0-9]+\\.[ 0-9][ 0-9][0-9] \\[OUTPUT\\]  *\n"));
    EXPECT_EQ(record.substr(84), head);
}

TEST(QvtpMessageOutImplLog, RecordsNothingWhenOnlyInputIsRecorded) {
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::INPUT);
    OutgoingMessage message;
    headOf(message);
    EXPECT_EQ(log.communication(), "");
}

TEST(QvtpMessageOutImplBody, IsAnnouncedByTheFirstLengthOrInChunks) {
    OutgoingMessage message;
    EXPECT_FALSE(message->announcesBody(false));
    EXPECT_FALSE(message->announcesBody(true));
    message.setBody("hello");
    EXPECT_TRUE(message->announcesBody(false));
    message.setBody("hi");
    EXPECT_FALSE(message->announcesBody(false));
    message.setHeader("content-length", "2");
    EXPECT_TRUE(message->announcesBody(false));
    message.removeHeader("Content-Length");
    EXPECT_FALSE(message->announcesBody(false));
    message.addHeader("Transfer-Encoding", "chunked");
    EXPECT_TRUE(message->announcesBody(true));
    message.addHeader("Content-Length", "2");
    EXPECT_FALSE(message->announcesBody(true));
}

TEST(QvtpMessageOutImplBody, IsNoLongerAnnouncedOnceItsLengthIsChangedOrTakenAway) {
    OutgoingMessage changed;
    changed.setBody("hello");
    EXPECT_FALSE(changed->announcesBody(true));
    changed.setHeader("content-length", "4");
    EXPECT_FALSE(changed->announcesBody(false));
    OutgoingMessage removed;
    removed.setBody("hello");
    removed.removeHeader("CONTENT-LENGTH");
    EXPECT_FALSE(removed->announcesBody(false));
    OutgoingMessage added;
    added.setBody("hello");
    added.addHeader("X-Other", "1");
    added.addHeader("Content-Length", "4");
    EXPECT_TRUE(added->announcesBody(false));
}

}  // namespace
