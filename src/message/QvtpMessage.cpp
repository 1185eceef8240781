#include <qvtp/message/QvtpMessage.h>

#include "common/Early.h"
#include "logging/Logger.h"

namespace Quovane::Qvtp {

QVTP_EARLY const std::string QvtpMessage::HEADER_CONTENT_LENGTH = "Content-Length";
QVTP_EARLY const std::string QvtpMessage::HEADER_TRANSFER_ENCODING = "Transfer-Encoding";
QVTP_EARLY const std::string QvtpMessage::HEADER_IDENTITY_ENCODING = "identity";
QVTP_EARLY const std::string QvtpMessage::HEADER_CHUNKED_ENCODING = "chunked";
QVTP_EARLY const std::string QvtpMessage::HEADER_USER_AGENT = "User-Agent";
QVTP_EARLY const std::string QvtpMessage::HEADER_SERVER = "Server";

QVTP_EARLY const std::string QvtpMessage::METHOD_POST = "POST";
QVTP_EARLY const std::string QvtpMessage::METHOD_NOTIFY = "NOTIFY";
QVTP_EARLY const std::string QvtpMessage::METHOD_NONE = "NONE";

const std::int32_t QvtpMessage::STATUS_OK;
const std::int32_t QvtpMessage::STATUS_BAD_REQUEST;
const std::int32_t QvtpMessage::STATUS_NOT_FOUND;
const std::int32_t QvtpMessage::STATUS_REQUEST_TIMEOUT;
const std::int32_t QvtpMessage::STATUS_LENGTH_REQUIRED;
const std::int32_t QvtpMessage::STATUS_ENTITY_LONG;
const std::int32_t QvtpMessage::STATUS_RESOURCE_ID_LONG;
const std::int32_t QvtpMessage::STATUS_SERVER_ERROR;
const std::int32_t QvtpMessage::STATUS_NOT_IMPLEMENTED;
const std::int32_t QvtpMessage::STATUS_VERSION_NOT_SUPPORTED;

QVTP_EARLY const std::map<std::int32_t, std::string> QvtpMessage::STATUS_REASONS = {
    {STATUS_OK, "OK"},
    {STATUS_BAD_REQUEST, "Bad Request"},
    {STATUS_NOT_FOUND, "Not Found"},
    {STATUS_REQUEST_TIMEOUT, "Request Timeout"},
    {STATUS_LENGTH_REQUIRED, "Length Required"},
    {STATUS_ENTITY_LONG, "Request Entity Too Large"},
    // The blank at the end is part of the interface: peers see it in the start line.
    {STATUS_RESOURCE_ID_LONG, "Resource-ID Too Long "},
    {STATUS_SERVER_ERROR, "Internal Server Error"},
    {STATUS_NOT_IMPLEMENTED, "Not Implemented"},
    {STATUS_VERSION_NOT_SUPPORTED, "QVTP Version Not Supported"},
};

QvtpMessage::QvtpMessage() = default;

QvtpMessage::~QvtpMessage() noexcept(false) = default;

void QvtpMessage::setLoggingLevel(std::FILE* logFile, LoggingLevel level, std::FILE* commFile,
                                  CommunicationLevel commLevel) {
    Internal::Qvtp::Logger::instance().configure(logFile, level, commFile, commLevel);
}

void QvtpMessage::setLogCorrelationId(const std::string& id) {
    Internal::Qvtp::Logger::setCorrelationId(id);
}

}  // namespace Quovane::Qvtp
