#include "message/QvtpMessageOutImpl.h"

#include <qvtp/io/IllegalArgumentException.h>

#include "common/MessageSink.h"
#include "common/StringUtils.h"
#include "common/Text.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/BodyRecord.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>
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
    headers_.addHeader(name, value);  // of a header that is there already the first value stays
}

void QvtpMessageOutImpl::setHeader(const std::string& name, const std::string& value) {
    lengthIsSure_ = false;
    headers_.setHeader(name, value);
}

void QvtpMessageOutImpl::removeHeader(const std::string& name) {
    lengthIsSure_ = false;
    headers_.removeHeader(name);
}

void QvtpMessageOutImpl::setBody(const char* data, size_t length) {
    if (length > MAX_BODY_LENGTH) {
        throw Io::IllegalArgumentException("The body is too long to be framed by its length. Use a body stream.");
    }
    BodyBlock body(length + 1);
    std::copy_n(data, length, body.get());
    body.get()[length] = '\0';
    char digits[NUMBER_ROOM];
    const char* const end = std::to_chars(digits, digits + sizeof digits, length).ptr;
    const std::string_view number(digits, static_cast<std::size_t>(end - digits));
    // Added, not set: a second call leaves both lengths in the header, and peers read the first.
    lengthIsSure_ = headers_.addPlainHeader(HEADER_CONTENT_LENGTH, number);
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
    if (lengthIsSure_ && !chunked) return true;
    // As the receiver has it: the length comes first.
    const std::string_view length = headers_.firstValue(HEADER_CONTENT_LENGTH);
    if (chunked) {
        return length.empty() && headers_.firstValue(HEADER_TRANSFER_ENCODING) == HEADER_CHUNKED_ENCODING;
    }
    return hasBody() && !length.empty() && bodyLength_ == static_cast<std::size_t>(StringUtils::toInteger(length));
}

void QvtpMessageOutImpl::writeBody(std::ostream* out) const {
    if (hasBody()) out->write(body_.get(), static_cast<std::streamsize>(bodyLength_));
}

void QvtpMessageOutImpl::compose(Head& head) {
    const std::string startLine = owner_->getStartLine();
    head.composed += startLine;
    head.composed += WireSyntax::LINE_END;
    headers_.write(head.composed, *converter_);
    head.composed += WireSyntax::LINE_END;
    head.text = head.composed.view();
    head.startLine = head.text.substr(0, startLine.size());
}

void QvtpMessageOutImpl::commit(const Head& head) {
    committed_ = true;
    logCommunication(CommunicationLevel::OUTPUT, head.text.data(), head.text.size(), true);
    logDebug([&] { return text(label_, head.startLine); });
}

void QvtpMessageOutImpl::writeHeaders(std::ostream* out) {
    Head head;
    compose(head);
    out->write(head.text.data(), static_cast<std::streamsize>(head.text.size()));
    out->flush();
    commit(head);
}

bool QvtpMessageOutImpl::sendWhole(MessageSink* sink) {
    if (sink == nullptr || !hasBody()) return false;
    Head head;
    compose(head);
    BodyRecord record;
    record.start();
    const std::size_t sent = writeSome(*sink, head);
    commit(head);
    writeRest(*sink, head, sent);
    record.add(body_.get(), bodyLength_);
    record.log();
    return true;
}

/// The record has the head as well: over streams it is written as the beginning of the body is.
bool QvtpMessageOutImpl::answerWhole(MessageSink* sink, int bufferSize) {
    if (sink == nullptr || !hasBody()) return false;
    Head head;
    compose(head);
    if (head.text.size() >= static_cast<std::size_t>(std::max(bufferSize, 1))) return false;
    BodyRecord record;
    record.start();
    commit(head);
    writeRest(*sink, head, writeSome(*sink, head));
    record.add(head.text.data(), head.text.size());
    record.add(body_.get(), bodyLength_);
    record.log();
    return true;
}

/// As one block if the head fits before the body: that saves the system's call for two.
std::size_t QvtpMessageOutImpl::writeSome(MessageSink& sink, const Head& head) {
    const char* const before = body_.putBefore(head.text);
    return sink.writeSome(before != nullptr ? before : head.text.data(), head.text.size(), body_.get(), bodyLength_);
}

/// What is left after the first `sent` bytes of head and body.
void QvtpMessageOutImpl::writeRest(MessageSink& sink, const Head& head, std::size_t sent) const {
    const std::size_t headLength = head.text.size();
    if (sent < headLength) sink.writeAll(head.text.data() + sent, headLength - sent);
    const std::size_t bodySent = std::max(sent, headLength) - headLength;
    if (bodySent < bodyLength_) sink.writeAll(body_.get() + bodySent, bodyLength_ - bodySent);
}

}  // namespace Quovane::Internal::Qvtp
