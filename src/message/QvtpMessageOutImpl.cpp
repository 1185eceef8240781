#include "message/QvtpMessageOutImpl.h"

#include <qvtp/io/IllegalArgumentException.h>

#include "common/MessageSink.h"
#include "common/StringUtils.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/BodyRecord.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

namespace {

constexpr std::size_t MAX_BODY_LENGTH = std::numeric_limits<std::int32_t>::max();

}  // namespace

QvtpMessageOutImpl::QvtpMessageOutImpl(QvtpMessageOut* owner, const std::string& label, Utf8String* converter)
    : owner_(owner), label_(label), converter_(converter) {}

QvtpMessageOutImpl::~QvtpMessageOutImpl() noexcept = default;

std::string QvtpMessageOutImpl::getStartLine() {
    return owner_->getStartLine();
}

void QvtpMessageOutImpl::addHeader(const std::string& name, const std::string& value) {
    headers_.addHeader(name, value);
}

void QvtpMessageOutImpl::setHeader(const std::string& name, const std::string& value) {
    headers_.setHeader(name, value);
}

void QvtpMessageOutImpl::removeHeader(const std::string& name) {
    headers_.removeHeader(name);
}

void QvtpMessageOutImpl::setBody(const char* data, size_t length) {
    if (length > MAX_BODY_LENGTH) {
        throw Io::IllegalArgumentException("The body is too long to be framed by its length. Use a body stream.");
    }
    std::unique_ptr<char[]> body(new char[length + 1]);
    std::copy_n(data, length, body.get());
    body[length] = '\0';
    // Added, not set: a second call leaves both lengths in the header, and peers read the first.
    addHeader(HEADER_CONTENT_LENGTH, std::to_string(length));
    body_ = std::move(body);
    bodyLength_ = length;
}

bool QvtpMessageOutImpl::isCommitted() const {
    return committed_;
}

std::uint64_t QvtpMessageOutImpl::getBodyLength() const {
    return hasBody() ? bodyLength_ : NO_BODY;
}

bool QvtpMessageOutImpl::announcesBody(bool chunked) const {
    // As the receiver has it: the length comes first.
    const std::string length = headers_.getHeader(HEADER_CONTENT_LENGTH);
    if (chunked) {
        return length.empty() && headers_.getHeader(HEADER_TRANSFER_ENCODING) == HEADER_CHUNKED_ENCODING;
    }
    return hasBody() && !length.empty() && bodyLength_ == static_cast<std::uint64_t>(StringUtils::toInteger(length));
}

void QvtpMessageOutImpl::writeBody(std::ostream* out) const {
    if (hasBody()) out->write(body_.get(), static_cast<std::streamsize>(bodyLength_));
}

std::string QvtpMessageOutImpl::composeHead(const std::string& startLine) const {
    std::string head = startLine;
    head += WireSyntax::LINE_END;
    headers_.write(head, *converter_);
    head += WireSyntax::LINE_END;
    return head;
}

void QvtpMessageOutImpl::commit(const std::string& head, const std::string& startLine) {
    committed_ = true;
    logCommunication(CommunicationLevel::OUTPUT, head, true);
    logDebug([&] { return label_ + startLine; });
}

void QvtpMessageOutImpl::writeHeaders(std::ostream* out) {
    const std::string startLine = getStartLine();
    const std::string head = composeHead(startLine);
    out->write(head.data(), static_cast<std::streamsize>(head.size()));
    out->flush();
    commit(head, startLine);
}

bool QvtpMessageOutImpl::sendWhole(std::ostream* out) {
    MessageSink* const sink = hasBody() ? MessageSink::of(*out) : nullptr;
    if (sink == nullptr) return false;
    const std::string startLine = getStartLine();
    const std::string head = composeHead(startLine);
    const auto length = static_cast<std::size_t>(bodyLength_);
    BodyRecord record;
    record.start();
    std::size_t sent = sink->writeSome(head.data(), head.size(), body_.get(), length);
    commit(head, startLine);
    if (sent < head.size()) {
        sink->writeAll(head.data() + sent, head.size() - sent);
        sent = head.size();
    }
    const std::size_t bodySent = sent - head.size();
    if (bodySent < length) sink->writeAll(body_.get() + bodySent, length - bodySent);
    record.add(body_.get(), length);
    record.log();
    return true;
}

}  // namespace Quovane::Internal::Qvtp
