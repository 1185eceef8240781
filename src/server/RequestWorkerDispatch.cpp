// The part of RequestWorker that reads one request and has the handler answer it.

#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/InterruptedException.h>
#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>
#include <qvtp/server/QvtpServerResponse.h>

#include "common/CurrentException.h"
#include "io/PipeControl.h"
#include "logging/Log.h"
#include "message/InputBuffer.h"
#include "message/QvtpMessageInImpl.h"
#include "message/StartLine.h"
#include "message/StreamUtil.h"
#include "server/LimitedInput.h"
#include "server/RequestWorker.h"
#include "server/ServerRequestImpl.h"

#include <ios>
#include <memory>
#include <string_view>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::IllegalStateException;
using Quovane::Io::InterruptedException;
using Quovane::Io::QvPipeException;
using Quovane::Qvtp::QvtpHandler;
using Quovane::Qvtp::QvtpMessage;

namespace {

constexpr std::uint64_t MAX_SKIPPED_BYTES = std::uint64_t{256} * 1024;

QvtpHandler& require(QvtpHandler* handler) {
    if (handler == nullptr) throw IllegalStateException("No handler has been set.");
    return *handler;
}

/// Notes at its end whether something was sent.
struct AnswerNote {
    bool* answered;  // null if nobody asks
    const Quovane::Qvtp::QvtpServerResponse& response;

    ~AnswerNote() {
        if (answered != nullptr && response.isCommitted()) *answered = true;
    }
};

}  // namespace

/// The idle time-out is over. A last look at the pipe, which logs that; then the client's next write is broken, and
/// what it wrote in between is served.
bool RequestWorker::staysSilent() {
    char none = 0;
    if (tryRead([&] { pipe_->readPipe(&none, 0, 0, 1); })) return false;
    endReading();
    serveRest();
    return true;
}

/// One request; false to hang up. From the pipe's stream, or from what was left when its reading ended: then only whole
/// requests reach the handler.
bool RequestWorker::serveRequest(std::istream& in, int headTimeoutMs, const RestInput* rest) {
    pipe_->setReadTimeout(headTimeoutMs);
    if (!beginsRequest(in)) return false;
    return hasLimits_ ? serveLimitedRequest(in, rest) : serveBegunRequest(in, rest);
}

/// The one place that decides whether a request was cut off: if its head or its body did not come whole, however its
/// handler takes that, or if it exceeded a limit. A body that the handler did not ask for is not missed.
bool RequestWorker::serveBegunRequest(std::istream& in, const RestInput* rest) {
    QvtpServerRequest request(server_, &in, &converter_);
    static_cast<ServerRequestImpl&>(*request.impl_).pipe = pipe_.get();
    if (!tryRead([&] { request.impl_->startLine(); })) {
        noteCutOff();
        return false;
    }
    body_ = request.bodyReader();
    /// Also if the handler's own exception leaves.
    const struct End {
        RequestWorker& worker;
        const std::istream& in;
        ~End() {
            const bool isMissing = in.bad() || in.eof() || worker.isOverLimit();
            if (isMissing && !worker.body_->isComplete()) worker.noteCutOff();
        }
    } end{*this, in};
    return serveWithBody(request, rest);
}

bool RequestWorker::serveWithBody(QvtpServerRequest& request, const RestInput* rest) {
    if (limited_ != nullptr && !limited_->endHead(*body_)) return false;
    if (rest != nullptr && !body_->hasArrived(rest->unread())) {
        noteCutOff();
        return false;
    }
    pipe_->setReadTimeout(receiveTimeoutMs_);
    if (!handle(request) || hasFailedStream()) return false;
    served_ = true;
    return skipBody();
}

/// Has the first byte brought into the stream's buffer. False if there is none, with which most connections end:
/// further in that would be thrown, a failure even twice, and cost more than a request.
bool RequestWorker::beginsRequest(std::istream& in) {
    using Traits = std::istream::traits_type;
    bool isAtEnd = false;
    if (!tryRead([&] { isAtEnd = Traits::eq_int_type(in.rdbuf()->sgetc(), Traits::eof()); })) return false;
    if (isAtEnd) logInterruption(StreamUtil::NO_LINE);
    return !isAtEnd;
}

bool RequestWorker::handle(QvtpServerRequest& request) {
    try {
        return dispatch(request);
    } catch (IllegalStateException& e) {
        logFailure("IllegalStateException - ", e.getMessage(), request);
    } catch (InterruptedException& e) {
        logError([&] { return "InterruptedException - " + fullName_ + ". " + e.getMessage(); });
    } catch (QvPipeException& e) {
        if (!stop_ && !isOverLimit()) logFailure("QvPipeException - ", e.getMessage(), request);
    } catch (const std::ios_base::failure&) {
        if (!hasFailedStream()) throw;  // of a stream of the handler's own
        if (!stop_ && !isOverLimit())
            logFailure("QvPipeException - ", "A stream of the QvPipe was used after it failed.", request);
    }
    return false;
}

/// After its first failure, which is a QvPipeException, a standard stream throws failures of its own kind.
bool RequestWorker::hasFailedStream() const {
    if (limited_ != nullptr && limited_->bad()) return true;
    return pipe_->getInputStream()->bad() || (outputBuffer_ != nullptr && pipe_->getOutputStream()->bad());
}

void RequestWorker::logFailure(const char* kind, const std::string& message, QvtpServerRequest& request) const {
    logError([&] { return kind + fullName_ + ". " + message; });
    logError([&] { return "Could not process the " + request.getResource() + " request. The pipe will be closed."; });
}

bool RequestWorker::dispatch(QvtpServerRequest& request) {
    const std::string_view method = StartLine(request.impl_->startLine()).first();
    if (method == QvtpMessage::METHOD_NOTIFY) {
        handleNotify(request);
    } else if (method == QvtpMessage::METHOD_POST && server_->accessFlag_ != 0) {
        handlePost(request);
    } else {
        // The worker's name stands where the method might be expected: log readers match this text.
        logError([&] { return "Unrecognized request method (" + fullName_ + "), the full message will be ignored."; });
        return false;
    }
    return !mustClose_;
}

/// Lets the exceptions through that the library knows; the others are the handler's own.
template <typename Call>
void RequestWorker::callHandler(QvtpServerResponse* response, const Call& call) {
    QvtpHandler& handler = require(server_->getHandler());
    const auto policy = server_->unhandledExceptionPolicy_.load();  // the server may be gone when the handler returns
    try {
        call(handler);
    } catch (IllegalStateException&) {
        throw;
    } catch (QvPipeException&) {
        throw;
    } catch (const std::ios_base::failure&) {
        if (hasFailedStream()) throw;
        handleUnknownException(policy, response);  // of a stream of the handler's own
    } catch (...) {
        handleUnknownException(policy, response);
    }
}

void RequestWorker::handleNotify(QvtpServerRequest& request) {
    logDebug([&] { return "Begin processing of NOTIFY request (" + fullName_ + ")."; });
    ++server_->totalNotifies_;
    callHandler(nullptr, [&](QvtpHandler& handler) { handler.handleNotify(&request); });
    if (mustClose_) return;
    logDebug([&] { return "Complete processing of NOTIFY request (" + fullName_ + ")."; });
}

void RequestWorker::handlePost(QvtpServerRequest& request) {
    logDebug([&] { return "Begin processing of POST request (" + fullName_ + ")."; });
    QvtpServerResponse response(server_, pipe_->getOutputStream(), &converter_);
    response.worker_ = this;
    const AnswerNote note{limited_ != nullptr ? &answered_ : nullptr, response};
    ++server_->totalPosts_;
    callHandler(&response, [&](QvtpHandler& handler) { handler.handlePost(&request, &response); });
    if (mustClose_) {
        if (!isOverLimit()) skipBody();  // the client reads the answer only when its request is written
        return;
    }
    logDebug([&] { return "Complete processing of POST request (" + fullName_ + ")."; });
}

/// Within the handler of the exception, which leaves again unless the server was told to close such connections. Over a
/// limit it is what the handler made of the failure of its read: the limit ends the connection, and has its own line.
void RequestWorker::handleUnknownException(int policy, QvtpServerResponse* response) {
    if (isOverLimit()) {
        mustClose_ = true;
        return;
    }
    const auto line = [&] {
        return "Unhandled exception in the handler (" + fullName_ + "). " + describeCurrentException();
    };
    if (policy == QvtpServer::KEEP) {
        logWarn(line);
        handlerFailed_ = true;
        throw;
    }
    logError(line);
    mustClose_ = true;
    const bool canAnswer = response != nullptr && !response->isCommitted() && !stop_;
    if (policy == QvtpServer::ANSWER && canAnswer) answerError(QvtpMessage::STATUS_SERVER_ERROR);
}

/// In a response that has nothing of the handler's.
void RequestWorker::answerError(int code) {
    answered_ = true;
    QvtpServerResponse answer(server_, pipe_->getOutputStream(), &converter_);
    answer.sendError(code, QvtpMessage::STATUS_REASONS.at(code));
}

/// Moves the stream to the next message, over what the handler left of this one. False if that is too much or fails.
bool RequestWorker::skipBody() {
    try {
        return body_->skipRest(MAX_SKIPPED_BYTES);
    } catch (QvPipeException&) {
        return false;  // the client has gone or fallen silent; its request was handled
    }
}

}  // namespace Quovane::Internal::Qvtp
