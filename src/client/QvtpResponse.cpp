#include <qvtp/client/QvtpResponse.h>

#include <qvtp/io/QvPipeException.h>

#include "common/StringUtils.h"
#include "common/Utf8String.h"
#include "message/DirectionLabel.h"
#include "message/QvtpMessageInImpl.h"

namespace Quovane::Qvtp {

using Internal::Qvtp::InputBuffer;
using Internal::Qvtp::QvtpMessageInImpl;
using Soa::Common::Xml::Utf8String;
using Soa::Internal::Common::StringUtils;

namespace {

constexpr char BLANK = ' ';

}  // namespace

QvtpResponse::QvtpResponse() : client_(nullptr) {}

QvtpResponse::QvtpResponse(QvtpClient* client, std::istream* in)
    : client_(client), decoder_(std::make_unique<Utf8String>()) {
    const int bufferSize = client_->getIntegerOption(QvtpClient::BUFFER_SIZE);
    reader_ =
        std::make_unique<QvtpMessageInImpl>(in, bufferSize, Internal::Qvtp::DirectionLabel::RECEIVE, decoder_.get());
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
        const std::string line = getStartLine();
        const std::size_t blank = line.find(BLANK);
        const std::size_t start = blank == std::string::npos ? 0 : blank + 1;
        const std::size_t end = line.find(BLANK, start);
        return StringUtils::toInteger(std::string_view(line).substr(start, end - start));
    } catch (Io::QvPipeException&) {
        return STATUS_SERVER_ERROR;
    }
}

std::string QvtpResponse::getReasonPhrase() {
    const std::string line = getStartLine();
    const std::size_t first = line.find(BLANK);
    const std::size_t second = first == std::string::npos ? first : line.find(BLANK, first + 1);
    return second == std::string::npos ? std::string() : StringUtils::trim(std::string_view(line).substr(second));
}

Version QvtpResponse::getQvtpVersion() {
    try {
        const std::string line = getStartLine();
        return Version(line.substr(0, line.find(BLANK)));
    } catch (Io::QvPipeException&) {
        return Version::CURRENT_VERSION;
    }
}

}  // namespace Quovane::Qvtp
