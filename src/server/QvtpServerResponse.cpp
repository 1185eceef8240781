#include <qvtp/server/QvtpServerResponse.h>

#include <qvtp/io/IllegalStateException.h>
#include <qvtp/server/QvtpServer.h>

#include "common/Text.h"
#include "common/Utf8String.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/DirectionLabel.h"
#include "message/QvtpMessageOutImpl.h"
#include "message/QvtpOStream.h"
#include "server/RequestWorker.h"

#include <algorithm>
#include <charconv>
#include <cstddef>

namespace Quovane::Qvtp {

using Internal::Qvtp::logErrorAndThrow;
using Internal::Qvtp::QvtpMessageOutImpl;
using Internal::Qvtp::QvtpOStream;
using Io::IllegalStateException;

namespace {

/// Otherwise a reason, which may be the text of any exception, could end its line and smuggle in headers.
void appendAsOneLine(std::string& line, const std::string& reason) {
    const auto endsLine = [](char c) { return c == '\r' || c == '\n' || c == '\0'; };
    const std::size_t begin = line.size();
    line += reason;
    std::replace_if(line.begin() + static_cast<std::ptrdiff_t>(begin), line.end(), endsLine, ' ');
}

}  // namespace

QvtpServerResponse::QvtpServerResponse(QvtpServer* server, std::ostream* out, Soa::Common::Xml::Utf8String* converter)
    : statusCode_(STATUS_SERVER_ERROR),
      server_(server),
      out_(out),
      impl_(std::make_unique<QvtpMessageOutImpl>(this, Internal::Qvtp::DirectionLabel::REPLY, converter)),
      bufferSize_(server_->getIntegerOption(QvtpServer::BUFFER_SIZE)) {
    impl_->setHeader(HEADER_SERVER, server_->getStringOption(QvtpServer::SERVER_NAME));
}

QvtpServerResponse::~QvtpServerResponse() noexcept = default;

std::string QvtpServerResponse::getStartLine() {
    namespace WireSyntax = Internal::Qvtp::WireSyntax;
    char words[WireSyntax::VERSION.size() + Internal::Qvtp::NUMBER_ROOM];
    char* end = words + WireSyntax::VERSION.copy(words, WireSyntax::VERSION.size());
    *end++ = WireSyntax::BLANK;
    end = std::to_chars(end, words + sizeof words - 1, statusCode_).ptr;
    *end++ = WireSyntax::BLANK;
    std::string line(words, end);
    appendAsOneLine(line, hasReason_ ? reasonPhrase_ : STATUS_REASONS.at(STATUS_SERVER_ERROR));
    return line;
}

void QvtpServerResponse::addHeader(const std::string& name, const std::string& value) {
    impl_->addHeader(name, value);
}

void QvtpServerResponse::setHeader(const std::string& name, const std::string& value) {
    impl_->setHeader(name, value);
}

void QvtpServerResponse::removeHeader(const std::string& name) {
    impl_->removeHeader(name);
}

void QvtpServerResponse::setBody(const char* data, size_t length) {
    impl_->setBody(data, length);
}

bool QvtpServerResponse::isCommitted() const {
    return impl_->isCommitted();
}

void QvtpServerResponse::setStatusCode(int code) {
    const auto reason = STATUS_REASONS.find(code);
    setStatusCode(code, reason != STATUS_REASONS.end() ? reason->second : "None");
}

void QvtpServerResponse::setStatusCode(int code, const std::string& reason) {
    statusCode_ = code;
    setReasonPhrase(reason);
}

void QvtpServerResponse::setReasonPhrase(const std::string& reason) {
    reasonPhrase_ = reason;
    hasReason_ = true;
}

std::ostream* QvtpServerResponse::getBodyStream() {
    if (bodyStream_ != nullptr) return bodyStream_.get();
    if (sentWhole_) {
        bodyStream_ = std::make_unique<QvtpOStream>(bufferSize_, false, out_, nullptr);
        bodyStream_->close();
    } else {
        impl_->setHeader(HEADER_TRANSFER_ENCODING, HEADER_CHUNKED_ENCODING);
        bodyStream_ = std::make_unique<QvtpOStream>(bufferSize_, true, out_, impl_.get());
    }
    return bodyStream_.get();
}

void QvtpServerResponse::send() {
    const bool hasBody = impl_->getBodyLength() != QvtpMessageOutImpl::NO_BODY;
    // The spelling of both is part of the interface: applications match these texts.
    if (!hasBody && bodyStream_ == nullptr) {
        logErrorAndThrow<IllegalStateException>(
            "Neither the setBody or getBodyStream methods were called. Body data must be provided by one of these "
            "method.");
    }
    if (hasBody && (bodyStream_ != nullptr || sentWhole_)) {
        logErrorAndThrow<IllegalStateException>(
            "Both the setBody and getBodyStream methods were called. Only one method of providing body data is "
            "permitted.");
    }
    if (worker_ != nullptr) worker_->beforeAnswer();
    if (hasBody) {
        sentWhole_ = true;
        if (impl_->answerWhole(worker_ != nullptr ? worker_->sink() : nullptr, bufferSize_)) return;
        // Head and body share one buffer, so that a small response is one write.
        bodyStream_ = std::make_unique<QvtpOStream>(bufferSize_, false, out_, nullptr);
        impl_->writeHeaders(bodyStream_.get());
        impl_->writeBody(bodyStream_.get());
    }
    bodyStream_->send();
}

void QvtpServerResponse::sendError(int code, const std::string& reason) {
    setStatusCode(code, reason);
    // Without this the length of a body set before would come first in the header, and the client wait for that body.
    impl_->removeHeader(HEADER_CONTENT_LENGTH);
    setBody("", 0);
    send();
}

}  // namespace Quovane::Qvtp
