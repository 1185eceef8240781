#include <qvtp/client/QvtpResponse.h>

#include <qvtp/io/QvPipeException.h>

#include "common/StringUtils.h"
#include "common/Utf8String.h"
#include "message/DirectionLabel.h"
#include "message/QvtpMessageInImpl.h"
#include "message/StartLine.h"

namespace Quovane::Qvtp {

using Internal::Qvtp::InputBuffer;
using Internal::Qvtp::QvtpMessageInImpl;
using Internal::Qvtp::StartLine;
using Soa::Common::Xml::Utf8String;
using Soa::Internal::Common::StringUtils;

// Private: there is no response without a message. It keeps the compiler from offering one.
QvtpResponse::QvtpResponse() : client_(nullptr) {}

QvtpResponse::QvtpResponse(QvtpClient* client, std::istream* in) : client_(client) {
    static Utf8String decoder;  // it has no state
    const int bufferSize = client_->getIntegerOption(QvtpClient::BUFFER_SIZE);
    reader_ = std::make_unique<QvtpMessageInImpl>(in, bufferSize, Internal::Qvtp::DirectionLabel::RECEIVE, &decoder);
}

QvtpResponse::~QvtpResponse() = default;

std::string QvtpResponse::getStartLine() {
    return reader_->getStartLine();
}

std::string QvtpResponse::getHeader(const std::string& name) const {
    return reader_->getHeader(name);
}

std::vector<std::string> QvtpResponse::getHeaders(const std::string& name) const {
    return reader_->getHeaders(name);
}

std::vector<std::string> QvtpResponse::getHeaderNames() {
    return reader_->getHeaderNames();
}

void QvtpResponse::getBody(char** data, size_t& size) {
    reader_->getBody(data, size);
}

std::istream* QvtpResponse::getBodyStream() {
    return reader_->getBodyStream();
}

std::shared_ptr<InputBuffer> QvtpResponse::bodyReader() const {
    return reader_->bodyReader();
}

int QvtpResponse::getStatusCode() {
    try {
        const StartLine line(reader_->startLine());
        return StringUtils::toInteger(line.hasBlank() ? line.second() : line.first());
    } catch (Io::QvPipeException&) {
        return STATUS_SERVER_ERROR;
    }
}

std::string QvtpResponse::getReasonPhrase() {
    return StringUtils::trim(StartLine(reader_->startLine()).rest());
}

Version QvtpResponse::getQvtpVersion() {
    try {
        return Version(std::string(StartLine(reader_->startLine()).first()));
    } catch (Io::QvPipeException&) {
        return Version::CURRENT_VERSION;
    }
}

}  // namespace Quovane::Qvtp
