#include "client/AbstractQvtpRequestImpl.h"

#include <qvtp/client/QvtpResponse.h>
#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/TimeoutException.h>

#include "client/DeadlineBuffer.h"
#include "common/Early.h"
#include "common/System.h"
#include "common/WireSyntax.h"
#include "io/PipeControl.h"
#include "logging/Log.h"
#include "message/DirectionLabel.h"
#include "message/QvtpMessageInImpl.h"

#include <algorithm>
#include <exception>
#include <vector>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::BrokenPipeException;
using Quovane::Io::IllegalStateException;
using Quovane::Io::QvPipeException;
using Quovane::Io::TimeoutException;

namespace {

// What a request does for a response that was not read to its end, before it gives up the connection.
constexpr std::uint64_t MAX_SKIPPED_BYTES = std::uint64_t{64} * 1024;
constexpr int MAX_SKIP_MS = 100;
// After so much, or chunks, it is worth a call of the system to see what has come in the meantime.
constexpr std::uint64_t LARGE_BODY = 4096;

}  // namespace

QVTP_EARLY const std::string AbstractQvtpRequestImpl::ONE_WAY = "w";
QVTP_EARLY const std::string AbstractQvtpRequestImpl::TWO_WAY = "rw";

AbstractQvtpRequestImpl::AbstractQvtpRequestImpl(const std::string& method, const std::string& resource,
                                                 QvtpClient* client, const std::string& pipeName,
                                                 const std::string& mode)
    : client_(client),
      pipeName_(pipeName),
      method_(method),
      resource_(resource),
      mode_(mode),
      message_(this, DirectionLabel::SEND, &encoder_) {
    message_.addHeader(HEADER_USER_AGENT, client_->getStringOption(QvtpClient::USER_AGENT));
}

AbstractQvtpRequestImpl::~AbstractQvtpRequestImpl() noexcept(false) {
    const bool unwinding = std::uncaught_exceptions() > exceptionsBefore_;
    try {
        releasePipe();
    } catch (IllegalStateException&) {
        // The manager knows the pipe no longer; there is nothing left to give back.
    } catch (...) {
        if (!unwinding) throw;
    }
}

std::string AbstractQvtpRequestImpl::getStartLine() {
    std::string line;
    line.reserve(method_.size() + resource_.size() + WireSyntax::VERSION.size() + 2);
    line += method_;
    line += WireSyntax::BLANK;
    encoder_.appendEncoded(resource_, line);
    line += WireSyntax::BLANK;
    line += WireSyntax::VERSION;
    return line;
}

void AbstractQvtpRequestImpl::addHeader(const std::string& name, const std::string& value) {
    message_.addHeader(name, value);
}

void AbstractQvtpRequestImpl::setHeader(const std::string& name, const std::string& value) {
    message_.setHeader(name, value);
}

void AbstractQvtpRequestImpl::removeHeader(const std::string& name) {
    message_.removeHeader(name);
}

void AbstractQvtpRequestImpl::setBody(const char* data, size_t size) {
    message_.setBody(data, size);
}

bool AbstractQvtpRequestImpl::isCommitted() const {
    return message_.isCommitted();
}

std::string AbstractQvtpRequestImpl::getMethod() const {
    return method_;
}

void AbstractQvtpRequestImpl::setResource(const std::string& resource) {
    resource_ = resource;
}

std::string AbstractQvtpRequestImpl::getResource() const {
    return resource_;
}

void AbstractQvtpRequestImpl::setBodyStream(std::istream* stream) {
    bodyStream_ = stream;
    message_.addHeader(HEADER_TRANSFER_ENCODING, HEADER_CHUNKED_ENCODING);
}

/// A broken pipe ends in another attempt or in an exception; every attempt begins with the same checks.
std::unique_ptr<AbstractQvtpRequestImpl::QvtpResponse> AbstractQvtpRequestImpl::execute() {
    for (;;) {
        checkBodySource();
        try {
            return attempt();
        } catch (BrokenPipeException& e) {
            handleBrokenPipe(e);
        }
    }
}

void AbstractQvtpRequestImpl::checkBodyPresent() const {
    if (message_.hasBody() || bodyStream_ != nullptr) return;
    // The spelling is part of the interface: applications match this text.
    logErrorAndThrow<IllegalStateException>(
        "Neither the setBody, or setBodyStream methods were called. Body data must be provided by one of these "
        "method.");
}

void AbstractQvtpRequestImpl::checkBodySource() const {
    checkBodyPresent();
    if (!message_.hasBody() || bodyStream_ == nullptr) return;
    logErrorAndThrow<IllegalStateException>(
        "Both the setBody and setBodyStream methods were called. Only one method of providing body data is permitted.");
}

std::unique_ptr<AbstractQvtpRequestImpl::QvtpResponse> AbstractQvtpRequestImpl::attempt() {
    if (message_.isCommitted()) {
        logErrorAndThrow<IllegalStateException>(
            "The start line and headers have already been committed to the request. Cannot send again.");
    }
    prepare();
    pipe_->getOutputStream();  // made for the pipe, if it is not there
    if (!message_.sendWhole(PipeControl::sinkOf(*pipe_))) sendThroughStream();
    if (isAnswered()) return beginResponse();
    exchangeComplete_ = true;
    return nullptr;
}

std::unique_ptr<AbstractQvtpRequestImpl::QvtpResponse> AbstractQvtpRequestImpl::beginResponse() {
    const int timeoutMs = client_->getResponseTimeout();
    responseTimed_ = timeoutMs > 0;
    if (responseTimed_) {
        pipeTimeoutMs_ = pipe_->getReadTimeout();
        pipe_->setReadTimeout(timeoutMs);
    }
    return std::make_unique<QvtpResponse>(client_, pipe_->getInputStream());
}

void AbstractQvtpRequestImpl::prepare() {
    dropPipe();
    checkBodyPresent();  // again: the manager, which may be the application's, has been called
    pipe_ = client_->getManager()->getPipe(pipeName_, mode_);
    processId_ = System::currentProcessId();
    announcesBody_ = message_.announcesBody(bodyStream_ != nullptr);
    exchangeComplete_ = false;
}

/// Head, flush, body in pieces of the buffer size, flush.
void AbstractQvtpRequestImpl::sendThroughStream() {
    QvtpOStream bodyOut(client_->getIntegerOption(QvtpClient::BUFFER_SIZE), bodyStream_ != nullptr,
                        pipe_->getOutputStream(), nullptr);
    message_.writeHeaders(pipe_->getOutputStream());
    if (bodyStream_ != nullptr) {
        copyBodyStream(bodyOut);
    } else {
        message_.writeBody(&bodyOut);
    }
    bodyOut.send();
}

void AbstractQvtpRequestImpl::copyBodyStream(QvtpOStream& bodyOut) {
    std::vector<char> buffer(static_cast<std::size_t>(std::max(client_->getIntegerOption(QvtpClient::BUFFER_SIZE), 1)));
    while (!bodyStream_->eof()) {
        bodyStream_->read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        if (bodyStream_->fail() && !bodyStream_->eof()) {
            // Without its last chunk a cut-off body never looks complete; the server learns it from the closed pipe.
            dropPipe();
            throw QvPipeException("The body stream failed before its end.");
        }
        bodyOut.write(buffer.data(), bodyStream_->gcount());
    }
}

void AbstractQvtpRequestImpl::handleBrokenPipe(BrokenPipeException& e) {
    const std::string reason = e.getMessage();
    if (message_.isCommitted() && !message_.hasBody()) {
        // What was read from the body stream is lost.
        dropPipe();
        logError([&] { return "Lost connection to server, the request will be aborted. " + reason; });
        throw BrokenPipeException(reason, e.getCode());
    }
    logDebug([&] { return "Lost connection to server, attempt request with new connection. " + reason; });
}

std::unique_ptr<AbstractQvtpRequestImpl::QvtpResponse> AbstractQvtpRequestImpl::receive(
    std::unique_ptr<QvtpResponse> response) {
    try {
        response->reader_->startLine();
    } catch (TimeoutException&) {
        response.reset();                // it reads from the pipe
        if (responseTimed_) dropPipe();  // now: nobody is going to wait for this answer
        throw;
    }
    responseBody_ = response->bodyReader();
    exchangeComplete_ = true;
    return response;
}

/// Hands a pipe that is not to be used again to the manager.
void AbstractQvtpRequestImpl::dropPipe() {
    if (pipe_ == nullptr) return;
    Quovane::Io::QvPipe* const pipe = pipe_;
    pipe_ = nullptr;
    client_->getManager()->removePipe(pipe);
}

void AbstractQvtpRequestImpl::releasePipe() {
    if (pipe_ == nullptr) return;
    // In a forked child the connection is the parent's, and so is what can be read from it.
    const bool isOwn = processId_ == System::currentProcessId();
    const bool reusable = isOwn && announcesBody_ && exchangeComplete_ && finishResponse() && nothingIsLeft();
    if (responseBody_ != nullptr) responseBody_->detach();
    if (!reusable) {
        dropPipe();
        return;
    }
    if (responseTimed_) pipe_->setReadTimeout(pipeTimeoutMs_);
    client_->getManager()->returnPipe(pipe_);
    pipe_ = nullptr;
}

/// Skips what is left of the response, within limits. True when the pipe stands after it. The body is to be detached
/// then: what it reads from is gone.
bool AbstractQvtpRequestImpl::finishResponse() {
    if (responseBody_ == nullptr || responseBody_->isComplete()) return true;
    if (!pipe_->getInputStream()->good()) return false;
    try {
        DeadlineBuffer buffer(pipe_, MAX_SKIP_MS);
        std::istream in(&buffer);
        in.exceptions(std::ios_base::badbit);
        responseBody_->readFrom(&in);
        return responseBody_->skipRest(MAX_SKIPPED_BYTES);
    } catch (...) {
        return false;  // the pipe failed, and is closed for it
    }
}

/// Bytes that came with the response but do not belong to it would be taken for the beginning of the next one. With a
/// small body they are in the stream's buffer, unless that is full, and it costs no call of the system to see them.
bool AbstractQvtpRequestImpl::nothingIsLeft() const {
    if (!isAnswered()) return true;
    if (pipe_->getInputStream()->rdbuf()->in_avail() > 0) return false;
    const bool isSmall = responseBody_ == nullptr || responseBody_->isSmallerThan(LARGE_BODY);
    return (isSmall && PipeControl::hadRoomForMore(*pipe_)) || PipeControl::available(*pipe_) == 0;
}

}  // namespace Quovane::Internal::Qvtp
