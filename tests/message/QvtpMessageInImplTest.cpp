#include "message/QvtpMessageInImpl.h"

#include "message/IncomingMessage.h"
#include "support/HasForm.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <string>

namespace {

using namespace Quovane::Internal::Qvtp;
using qvtp_test::HasForm;
using qvtp_test::IncomingMessage;
using qvtp_test::LogCapture;
using qvtp_test::thrownBy;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char HEAD_CUT_OFF[] = "InterruptedException: Reached the stream end-of-file before the expected new line.";
const char NO_LENGTH[] =
    "QvPipeException: The QVTP Message does not have a Content-Length or Transfer-Encoding header [1011]";
const char NO_HEAD[] =
    "QvPipeException: Failed to read the message start line and headers, and do not have body of the message. [1013]";
const char BODY_CUT_OFF[] = "QvPipeException: Reached the stream end-of-file before the expected length.";

std::string withLength(const std::string& length, const std::string& body) {
    return "POST /r QVTP/1.0\r\nContent-Length: " + length + "\r\n\r\n" + body;
}

std::string chunked(const std::string& chunks) {
    return "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks;
}

std::string streamed(IncomingMessage& message) {
    return {std::istreambuf_iterator<char>(*message->getBodyStream()), {}};
}

std::string startLineThrows(IncomingMessage& message) {
    return thrownBy([&] { message->getStartLine(); });
}

TEST(QvtpMessageInImplHead, GivesTheStartLineAsItWasSent) {
    IncomingMessage message(" POST  /a b\tQVTP/9.9 x \r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(message->getStartLine(), " POST  /a b\tQVTP/9.9 x ");
}

TEST(QvtpMessageInImplHead, SkipsEmptyLinesBeforeTheStartLine) {
    IncomingMessage message("\r\n\n\r\n" + withLength("0", "NEXT"));
    EXPECT_EQ(message->getStartLine(), "POST /r QVTP/1.0");
    EXPECT_EQ(message.left(), "NEXT");
}

TEST(QvtpMessageInImplHead, IsReadOnlyOnce) {
    IncomingMessage message(withLength("0", "") + withLength("0", ""));
    EXPECT_EQ(message->getStartLine(), message->getStartLine());
    EXPECT_EQ(message.left(), withLength("0", ""));
}

TEST(QvtpMessageInImplHead, IsReadByEachOperationThatNeedsIt) {
    EXPECT_EQ(IncomingMessage(withLength("3", "abc")).body(), "abc");
    IncomingMessage byStream(withLength("3", "abc"));
    EXPECT_EQ(streamed(byStream), "abc");
    EXPECT_EQ(byStream->getStartLine(), "POST /r QVTP/1.0");
}

TEST(QvtpMessageInImplHead, IsNotReadByTheHeaderAccessors) {
    IncomingMessage message(withLength("3", "abc"));
    EXPECT_EQ(message->getHeader("Content-Length"), "");
    EXPECT_THAT(message->getHeaders("Content-Length"), IsEmpty());
    EXPECT_THAT(message->getHeaderNames(), IsEmpty());
    EXPECT_EQ(message.left(), withLength("3", "abc"));
}

TEST(QvtpMessageInImplHead, GivesItsHeaders) {
    IncomingMessage message("X QVTP/1.0\r\nX-Ids: a, b\r\ncontent-length: 0\r\nU: \xE4\r\n\r\n");
    message->getStartLine();
    EXPECT_THAT(message->getHeaderNames(), ElementsAre("content-length", "U", "X-Ids"));
    EXPECT_THAT(message->getHeaders("x-ids"), ElementsAre("a", "b"));
    EXPECT_EQ(message->getHeader("U"), "\xC3\xA4");
}

TEST(QvtpMessageInImplHead, ReadsNothingOfTheBody) {
    IncomingMessage message(withLength("3", "abc"));
    message->getStartLine();
    EXPECT_EQ(message.left(), "abc");
}

TEST(QvtpMessageInImplStandIn, TakesTheFormOfARequestOnTheServer) {
    IncomingMessage message("", 16, DirectionLabel::ACCEPT);
    EXPECT_EQ(startLineThrows(message), HEAD_CUT_OFF);
    EXPECT_EQ(message->getStartLine(), "NONE Empty/Resource QVTP/1.0");
}

TEST(QvtpMessageInImplStandIn, TakesTheFormOfAResponseOnTheClient) {
    IncomingMessage message("", 16, DirectionLabel::RECEIVE);
    EXPECT_EQ(startLineThrows(message), HEAD_CUT_OFF);
    EXPECT_EQ(message->getStartLine(), "QVTP/1.0 500 Internal Server Error");
}

TEST(QvtpMessageInImplStandIn, StaysWhenTheHeadIsCutOffAnywhere) {
    const std::string head = withLength("3", "");
    for (std::size_t length = 0; length < head.size(); ++length) {
        IncomingMessage message(head.substr(0, length));
        EXPECT_EQ(startLineThrows(message), HEAD_CUT_OFF) << length;
        EXPECT_EQ(message->getStartLine(), "NONE Empty/Resource QVTP/1.0") << length;
    }
}

TEST(QvtpMessageInImplStandIn, HasTheHeadersThatAWholeLineFollowed) {
    for (const char* end : {"", "\r\n", "\r\nB: 2", "\r\nB: 2\r", "\r\n B"}) {
        IncomingMessage message("QVTP/1.0 200 OK\r\nX: 0\r\nA: 1" + std::string(end), 16, DirectionLabel::RECEIVE);
        EXPECT_EQ(startLineThrows(message), HEAD_CUT_OFF) << end;
        EXPECT_EQ(message->getHeader("X"), *end == '\0' ? "" : "0") << end;
        EXPECT_EQ(message->getHeader("A"), "") << end;
    }
}

TEST(QvtpMessageInImplStandIn, StaysWhenTheHeadGivesNoLength) {
    IncomingMessage message("QVTP/1.0 200 OK\r\nX: 1\r\n\r\n", 16, DirectionLabel::RECEIVE);
    EXPECT_EQ(startLineThrows(message), NO_LENGTH);
    EXPECT_EQ(message->getStartLine(), "QVTP/1.0 500 Internal Server Error");
}

TEST(QvtpMessageInImplStandIn, HasNoBody) {
    const LogCapture log;
    IncomingMessage message("");
    startLineThrows(message);
    EXPECT_EQ(thrownBy([&] { message.body(); }), NO_HEAD);
    EXPECT_EQ(thrownBy([&] { message->getBodyStream(); }), NO_HEAD);
    EXPECT_EQ(message->bodyReader(), nullptr);
    EXPECT_EQ(
        log.count("ERROR Failed to read the message start line and headers, and do not have body of the message."), 2);
}

TEST(QvtpMessageInImplStandIn, ReadsNoMoreAfterAFailure) {
    IncomingMessage message("POST /r QVTP/1.0\r\n\r\n" + withLength("0", ""));
    EXPECT_EQ(startLineThrows(message), NO_LENGTH);
    message->getStartLine();
    EXPECT_EQ(thrownBy([&] { message.body(); }), NO_HEAD);
    EXPECT_EQ(message.left(), withLength("0", ""));
}

TEST(QvtpMessageInImplFraming, FailsWithoutAnyLength) {
    const LogCapture log;
    IncomingMessage message("POST /r QVTP/1.0\r\n\r\n");
    EXPECT_EQ(startLineThrows(message), NO_LENGTH);
    EXPECT_THAT(log.messages(),
                ElementsAre("DEBUG Accept:  POST /r QVTP/1.0",
                            "ERROR The QVTP Message does not have a Content-Length or Transfer-Encoding header"));
}

TEST(QvtpMessageInImplFraming, TakesNoOtherTransferEncoding) {
    for (const char* encoding : {"Chunked", "CHUNKED", "identity", "chunked;q=1", "gzip, chunked", "", "\"chunked\""}) {
        IncomingMessage message(std::string("X\r\nTransfer-Encoding: ") + encoding + "\r\n\r\n0\r\n\r\n");
        EXPECT_EQ(startLineThrows(message), NO_LENGTH) << encoding;
    }
}

TEST(QvtpMessageInImplFraming, LooksAtTheFirstTransferEncodingOnly) {
    IncomingMessage message("X\r\nTransfer-Encoding: chunked, gzip\r\n\r\n1\r\na\r\n0\r\n\r\n");
    EXPECT_EQ(message.body(), "a");
}

TEST(QvtpMessageInImplFraming, PrefersTheLengthWhenBothAreThere) {
    IncomingMessage message("X\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n1\r\na\r\n0\r\n\r\n");
    EXPECT_EQ(message.body(), "1\r\n");
    EXPECT_EQ(message.left(), "a\r\n0\r\n\r\n");
}

TEST(QvtpMessageInImplFraming, TakesAnEmptyLengthForNone) {
    IncomingMessage both("X\r\nContent-Length: \r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n");
    EXPECT_EQ(both.body(), "a");
    IncomingMessage alone(withLength("", "abc"));
    EXPECT_EQ(startLineThrows(alone), NO_LENGTH);
}

TEST(QvtpMessageInImplFraming, ReadsTheFirstOfSeveralLengths) {
    EXPECT_EQ(IncomingMessage(withLength("2,3", "abcd")).body(), "ab");
    EXPECT_EQ(IncomingMessage("X\r\nContent-Length: 1\r\ncontent-length: 3\r\n\r\nabcd").body(), "a");
}

TEST(QvtpMessageInImplFraming, ReadsTheDigitsAtTheFrontOfTheLength) {
    EXPECT_EQ(IncomingMessage(withLength("3abc", "abcd")).body(), "abc");
    EXPECT_EQ(IncomingMessage(withLength("+3", "abcd")).body(), "abc");
    EXPECT_EQ(IncomingMessage(withLength("003", "abcd")).body(), "abc");
    EXPECT_EQ(IncomingMessage(withLength("abc", "abcd")).body(), "");
    EXPECT_EQ(IncomingMessage(withLength("0x3", "abcd")).body(), "");
}

TEST(QvtpMessageInImplFraming, StreamsALengthOfMinusOneAsChunks) {
    IncomingMessage message(withLength("-1", "5\r\nhello\r\n0\r\n\r\nNEXT"));
    EXPECT_EQ(streamed(message), "hello");
    EXPECT_EQ(message.left(), "NEXT");
}

TEST(QvtpMessageInImplFraming, StreamsAnyOtherNegativeLengthToTheEndOfThePipe) {
    IncomingMessage message(withLength("-5", "everything"));
    EXPECT_EQ(streamed(message), "everything");
}

TEST(QvtpMessageInImplBody, IsEmptyForANegativeLength) {
    for (const char* length : {"-1", "-5", "-2147483648", "-99999999999"}) {
        IncomingMessage message(withLength(length, "5\r\nhello\r\n0\r\n\r\n"));
        EXPECT_EQ(message.body(), "") << length;
    }
}

TEST(QvtpMessageInImplBody, IsReadByItsLength) {
    IncomingMessage message(withLength("5", "helloNEXT"));
    EXPECT_EQ(message.body(), "hello");
    EXPECT_TRUE(message->bodyReader()->isComplete());
    EXPECT_EQ(message.left(), "NEXT");
}

TEST(QvtpMessageInImplBody, IsReadToItsLastChunk) {
    IncomingMessage message(chunked("5\r\nhello\r\n1\r\n!\r\n0\r\n\r\nNEXT"));
    EXPECT_EQ(message.body(), "hello!");
    EXPECT_TRUE(message->bodyReader()->isComplete());
    EXPECT_EQ(message.left(), "NEXT");
}

TEST(QvtpMessageInImplBody, HasAZeroByteAfterIt) {
    for (const std::string& bytes : {withLength("3", "abc"), chunked("3\r\nabc\r\n0\r\n\r\n")}) {
        IncomingMessage message(bytes);
        char* data = nullptr;
        size_t length = 0;
        message->getBody(&data, length);
        const std::unique_ptr<char[]> block(data);
        EXPECT_EQ(length, 3U);
        EXPECT_STREQ(data, "abc");
    }
}

TEST(QvtpMessageInImplBody, IsAnEmptyBlockForALengthOfZero) {
    IncomingMessage message(withLength("0", "NEXT"));
    char* data = nullptr;
    size_t length = 7;
    message->getBody(&data, length);
    const std::unique_ptr<char[]> block(data);
    EXPECT_EQ(length, 0U);
    EXPECT_STREQ(data, "");
    EXPECT_EQ(message->getBodyStream()->get(), std::char_traits<char>::eof());
    EXPECT_EQ(message.left(), "NEXT");
}

TEST(QvtpMessageInImplBody, WarnsAndThrowsWhenItIsCutOff) {
    const LogCapture log(LogCapture::LoggingLevel::WARN);
    IncomingMessage message(withLength("5", "hell"));
    char* data = nullptr;
    size_t length = 7;
    EXPECT_EQ(thrownBy([&] { message->getBody(&data, length); }), BODY_CUT_OFF);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 7U);
    EXPECT_THAT(log.messages(), ElementsAre("WARN Reached the stream end-of-file before the expected length."));
}

TEST(QvtpMessageInImplBody, EndsEarlyAtAMalformedChunk) {
    const LogCapture log(LogCapture::LoggingLevel::ERROR);
    IncomingMessage message(chunked("5\r\nhello\r\n5\r\nhello**"));
    EXPECT_EQ(message.body(), "hello");
    EXPECT_FALSE(message->bodyReader()->isComplete());
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Bad end of chunk"));
}

TEST(QvtpMessageInImplBody, GivesWhatIsLeftAfterTheStreamWasRead) {
    IncomingMessage message(chunked("5\r\nhello\r\n0\r\n\r\n"));
    EXPECT_EQ(message->getBodyStream()->get(), 'h');
    EXPECT_EQ(message.body(), "ello");
    EXPECT_EQ(message.body(), "");
}

TEST(QvtpMessageInImplBody, IsCutOffWhenABodyOfKnownLengthIsReadAgain) {
    IncomingMessage message(withLength("5", "hello"));
    EXPECT_EQ(message.body(), "hello");
    EXPECT_EQ(thrownBy([&] { message.body(); }), BODY_CUT_OFF);
}

TEST(QvtpMessageInImplBody, IsTheSameStreamEveryTime) {
    IncomingMessage message(withLength("5", "hello"));
    EXPECT_EQ(message->getBodyStream(), message->getBodyStream());
}

TEST(QvtpMessageInImplBody, IsReadInPiecesOfTheBufferSize) {
    IncomingMessage message(withLength("5", "hello"), 2);
    message->getBodyStream()->get();
    EXPECT_EQ(message.left(), "llo");
}

TEST(QvtpMessageInImplBody, GrowsBeyondItsFirstBlock) {
    const std::string half(41000, 'x');
    IncomingMessage message(chunked("a028\r\n" + half + "\r\na028\r\n" + half + "\r\n0\r\n\r\n"), 4096);
    EXPECT_EQ(message.body(), half + half);
}

TEST(QvtpMessageInImplLog, ShowsTheStartLineAfterTheLabelAndTheThroughput) {
    for (const std::string& label : {DirectionLabel::ACCEPT, DirectionLabel::RECEIVE}) {
        const LogCapture log;
        IncomingMessage message(withLength("5", "hello"), 16, label);
        message.body();
        EXPECT_THAT(log.messages(), ElementsAre("DEBUG " + label + "POST /r QVTP/1.0",
                                                HasForm("DEBUG Read 5 bytes from the QvPipe \\([0-9]+ Mbps\\)\\.")));
    }
}

TEST(QvtpMessageInImplLog, ShowsNothingAtInfo) {
    const LogCapture log(LogCapture::LoggingLevel::INFO);
    IncomingMessage(withLength("5", "hello")).body();
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(QvtpMessageInImplLog, RecordsAMessageByteForByteAfterItsHeaderLine) {
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::INPUT);
    IncomingMessage message(
        "\r\nPOST /r QVTP/1.0\r\nX:  1\r\n\t2\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n");
    message.body();
    const std::string record = log.communication();
    EXPECT_THAT(record.substr(0, 84), HasForm("[-0-9]+ [:0-9]+\\.[ 0-9][ 0-9][0-9] \\[INPUT \\]  *\n"));
    EXPECT_EQ(record.substr(84), "POST /r QVTP/1.0\nX:  1\n\t2\nTransfer-Encoding: chunked\nabc\n");
}

TEST(QvtpMessageInImplLog, RecordsNothingOfAMessageThatNeverCame) {
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::INPUT);
    IncomingMessage message("\r\nPOS");
    startLineThrows(message);
    EXPECT_EQ(log.communication(), "");
}

TEST(QvtpMessageInImplLog, RecordsNothingWhenOnlyOutputIsRecorded) {
    const LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::OUTPUT);
    IncomingMessage(withLength("5", "hello")).body();
    EXPECT_EQ(log.communication(), "");
}

}  // namespace
