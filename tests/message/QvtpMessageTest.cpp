#include <qvtp/message/QvtpMessage.h>

#include <qvtp/message/QvtpMessageIn.h>
#include <qvtp/message/QvtpMessageOut.h>

#include "logging/Log.h"
#include "logging/Logger.h"
#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <type_traits>

namespace {

using namespace Quovane::Qvtp;
using qvtp_test::virtualSlot;

TEST(QvtpMessage, NamesTheMethods) {
    EXPECT_EQ(QvtpMessage::METHOD_POST, "POST");
    EXPECT_EQ(QvtpMessage::METHOD_NOTIFY, "NOTIFY");
    EXPECT_EQ(QvtpMessage::METHOD_NONE, "NONE");
}

TEST(QvtpMessage, NamesTheHeadersAndTheEncodings) {
    EXPECT_EQ(QvtpMessage::HEADER_CONTENT_LENGTH, "Content-Length");
    EXPECT_EQ(QvtpMessage::HEADER_TRANSFER_ENCODING, "Transfer-Encoding");
    EXPECT_EQ(QvtpMessage::HEADER_IDENTITY_ENCODING, "identity");
    EXPECT_EQ(QvtpMessage::HEADER_CHUNKED_ENCODING, "chunked");
    EXPECT_EQ(QvtpMessage::HEADER_USER_AGENT, "User-Agent");
    EXPECT_EQ(QvtpMessage::HEADER_SERVER, "Server");
}

TEST(QvtpMessage, NumbersTheStatusCodes) {
    EXPECT_EQ(QvtpMessage::STATUS_OK, 200);
    EXPECT_EQ(QvtpMessage::STATUS_BAD_REQUEST, 400);
    EXPECT_EQ(QvtpMessage::STATUS_NOT_FOUND, 404);
    EXPECT_EQ(QvtpMessage::STATUS_REQUEST_TIMEOUT, 408);
    EXPECT_EQ(QvtpMessage::STATUS_LENGTH_REQUIRED, 411);
    EXPECT_EQ(QvtpMessage::STATUS_ENTITY_LONG, 413);
    EXPECT_EQ(QvtpMessage::STATUS_RESOURCE_ID_LONG, 414);
    EXPECT_EQ(QvtpMessage::STATUS_SERVER_ERROR, 500);
    EXPECT_EQ(QvtpMessage::STATUS_NOT_IMPLEMENTED, 501);
    EXPECT_EQ(QvtpMessage::STATUS_VERSION_NOT_SUPPORTED, 505);
}

TEST(QvtpMessage, HasAReasonForExactlyTheTenStatusCodes) {
    const std::map<std::int32_t, std::string> expected = {
        {200, "OK"},
        {400, "Bad Request"},
        {404, "Not Found"},
        {408, "Request Timeout"},
        {411, "Length Required"},
        {413, "Request Entity Too Large"},
        {414, "Resource-ID Too Long "},
        {500, "Internal Server Error"},
        {501, "Not Implemented"},
        {505, "QVTP Version Not Supported"},
    };
    EXPECT_EQ(QvtpMessage::STATUS_REASONS, expected);
}

TEST(QvtpMessage, HoldsNoDataAndOnlyItsDestructorIsVirtual) {
    EXPECT_EQ(sizeof(QvtpMessage), sizeof(void*));
    EXPECT_TRUE(std::has_virtual_destructor_v<QvtpMessage>);
    EXPECT_EQ(virtualSlot(&QvtpMessageIn::getStartLine), 1);  // the first slot after the base's own
}

TEST(QvtpMessage, IsMadeOnlyAsPartOfAMessage) {
    EXPECT_FALSE(std::is_default_constructible_v<QvtpMessage>);
    EXPECT_TRUE((std::is_base_of_v<QvtpMessage, QvtpMessageIn>));
    EXPECT_TRUE((std::is_base_of_v<QvtpMessage, QvtpMessageOut>));
    EXPECT_TRUE(std::is_abstract_v<QvtpMessageIn>);
    EXPECT_TRUE(std::is_abstract_v<QvtpMessageOut>);
}

TEST(QvtpMessage, SetsLoggingAndCorrelationIdForEveryone) {
    std::FILE* const file = std::tmpfile();
    QvtpMessage::setLoggingLevel(file, LoggingLevel::INFO, nullptr, CommunicationLevel::OFF);
    EXPECT_EQ(Quovane::Internal::Qvtp::loggingLevel(), LoggingLevel::INFO);
    QvtpMessage::setLogCorrelationId("call-7");
    EXPECT_EQ(Quovane::Internal::Qvtp::Logger::correlationId(), "call-7");
    QvtpMessage::setLogCorrelationId("");
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    std::fclose(file);
}

}  // namespace
