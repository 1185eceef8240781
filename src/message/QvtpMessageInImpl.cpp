#include "message/QvtpMessageInImpl.h"

#include <qvtp/io/QvPipeException.h>
#include <qvtp/message/Version.h>

#include "common/StringUtils.h"
#include "common/Text.h"
#include "logging/Log.h"
#include "message/DirectionLabel.h"
#include "message/StreamUtil.h"

#include <algorithm>
#include <new>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::QvPipeException;
using Quovane::Qvtp::Version;
using Quovane::Soa::Internal::Common::StringUtils;

namespace {

constexpr int NO_LENGTH = 1011;
constexpr int NO_HEAD = 1013;

}  // namespace

QvtpMessageInImpl::QvtpMessageInImpl(std::istream* pipeStream, int bufferSize, const std::string& label,
                                     Utf8String* converter)
    : pipeStream_(pipeStream), bufferSize_(bufferSize), label_(label), converter_(converter) {}

QvtpMessageInImpl::~QvtpMessageInImpl() = default;

std::string QvtpMessageInImpl::getStartLine() {
    return std::string(startLine());
}

std::string_view QvtpMessageInImpl::startLine() {
    readHead();
    if (!startLine_.empty()) return startLine_;
    if (standIn_.empty()) standIn_ = standInStartLine();
    return standIn_;
}

std::string QvtpMessageInImpl::getHeader(const std::string& name) const {
    return headers_.getHeader(name);
}

std::vector<std::string> QvtpMessageInImpl::getHeaders(const std::string& name) const {
    return headers_.getHeaders(name);
}

std::vector<std::string> QvtpMessageInImpl::getHeaderNames() {
    return headers_.getHeaderNames();
}

std::shared_ptr<InputBuffer> QvtpMessageInImpl::bodyReader() const {
    return body_ ? body_->input() : nullptr;
}

/// The start line counts only when the whole head was read.
void QvtpMessageInImpl::readHead() {
    if (headAsked_) return;
    headAsked_ = true;
    std::string room;
    const std::string_view line = headers_.keep(readStartLine(room));
    if (isCommunicationEnabled(CommunicationLevel::INPUT)) {
        logStep([&] { logCommunication(CommunicationLevel::INPUT, text(line, "\n"), true); });
    }
    logDebug([&] { return text(label_, line); });
    headers_.read(*pipeStream_, *converter_);
    body_.emplace(bufferSize_, std::make_shared<InputBuffer>(findBodyLength(), pipeStream_));
    startLine_ = line;
}

std::string QvtpMessageInImpl::standInStartLine() const {
    const std::string version = Version::CURRENT_VERSION.toString();
    if (label_ == DirectionLabel::ACCEPT) return QvtpMessage::METHOD_NONE + " Empty/Resource " + version;
    const int code = QvtpMessage::STATUS_SERVER_ERROR;
    return text(version, " ", code, " ", QvtpMessage::STATUS_REASONS.at(code));
}

/// Empty lines before a message are skipped. As StreamUtil::readLine gives it.
std::string_view QvtpMessageInImpl::readStartLine(std::string& room) {
    std::string_view line;
    while (line.empty()) line = StreamUtil::readLine(*pipeStream_, room);
    return line;
}

bool QvtpMessageInImpl::isChunked() const {
    return headers_.firstValue(QvtpMessage::HEADER_TRANSFER_ENCODING) == QvtpMessage::HEADER_CHUNKED_ENCODING;
}

std::uint64_t QvtpMessageInImpl::findBodyLength() {
    const std::string_view length = headers_.firstValue(QvtpMessage::HEADER_CONTENT_LENGTH);
    if (!length.empty()) {
        announcedLength_ = StringUtils::toInteger(length);
        return static_cast<std::uint64_t>(std::int64_t{*announcedLength_});  // its sign kept: -1 marks a chunked body
    }
    if (isChunked()) return InputBuffer::CHUNKED;
    logErrorAndThrow<QvPipeException>("The QVTP Message does not have a Content-Length or Transfer-Encoding header",
                                      NO_LENGTH);
}

BodySource& QvtpMessageInImpl::requireBody() {
    readHead();
    if (body_) return *body_;
    logErrorAndThrow<QvPipeException>(
        "Failed to read the message start line and headers, and do not have body of the message.", NO_HEAD);
}

void QvtpMessageInImpl::getBody(char** data, size_t& length) {
    BodySource& body = requireBody();
    try {
        if (bodyStream_ != nullptr) {
            readBody(*bodyStream_, data, length);
        } else {
            readBody(body, data, length);
        }
    } catch (const std::bad_alloc&) {
        // Of something small: blocks of the body's size name it themselves.
        logErrorAndThrow<QvPipeException>("Not enough memory for a body.");
    }
}

template <typename Source>
void QvtpMessageInImpl::readBody(Source& body, char** data, size_t& length) {
    if (announcedLength_) {
        StreamUtil::readLength(body, data, *announcedLength_);
        length = static_cast<size_t>(std::max(*announcedLength_, 0));
    } else if (isChunked()) {
        length = StreamUtil::readToEnd(body, data);
    } else {
        // Reading the head has refused such a message; a body without framing is never given all the same. The text
        // names a request also for a response: callers match it.
        throw QvPipeException("The QVTP Request Message does not have a Content-Length or Transfer-Encoding header",
                              NO_LENGTH);
    }
}

std::istream* QvtpMessageInImpl::getBodyStream() {
    const BodySource& body = requireBody();
    if (bodyStream_ != nullptr) return bodyStream_.get();
    try {
        bodyStream_ = std::make_unique<QvtpIStream>(bufferSize_, body.input(), body.state());
    } catch (const std::bad_alloc&) {
        logErrorAndThrow<QvPipeException>("Not enough memory for a body.");
    }
    return bodyStream_.get();
}

}  // namespace Quovane::Internal::Qvtp
