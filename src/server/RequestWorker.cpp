#include "server/RequestWorker.h"

#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/TimeoutException.h>
#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>
#include <qvtp/server/QvtpServerResponse.h>

#include "logging/Log.h"
#include "message/InputBuffer.h"

#include <algorithm>
#include <ios>
#include <utility>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::IllegalStateException;
using Quovane::Io::InterruptedException;
using Quovane::Io::QvPipe;
using Quovane::Io::QvPipeException;
using Quovane::Io::TimeoutException;
using Quovane::Qvtp::QvtpHandler;
using Quovane::Qvtp::QvtpMessage;
using Quovane::Qvtp::QvtpServerResponse;

namespace {

constexpr std::uint64_t MAX_SKIPPED_BYTES = 256 * 1024;

QvtpHandler& require(QvtpHandler* handler) {
    if (handler == nullptr) throw IllegalStateException("No handler has been set.");
    return *handler;
}

}  // namespace

RequestWorker::RequestWorker(std::unique_ptr<QvPipe> pipe, QvtpServer* server, const std::string& name)
    : server_(server), pipe_(std::move(pipe)), name_(name), fullName_(server_->pipeName_ + "/" + name) {}

RequestWorker::~RequestWorker() {
    logDebug([&] { return "Deleting worker " + fullName_; });
    pipe_.reset();  // before the buffers that its streams use
}

void RequestWorker::stop() {
    logDebug([&] { return "Stopping worker " + fullName_; });
    stop_ = true;
    pipe_->close();
}

/// An exception that serveRequests() does not know leaves at once: such a worker stays in the map as running, and the
/// server reports it when it stops.
void RequestWorker::run() {
    begun_ = true;
    prepareStreams();
    serveRequests();
    logDebug([&] { return "Closing QvPipe (" + fullName_ + "). "; });
    pipe_->close();
    running_ = false;  // the last step: from here on the server may delete this object
}

void RequestWorker::prepareStreams() {
    idleTimeoutMs_ = server_->getIntegerOption(QvtpServer::IDLE_TIMEOUT);
    receiveTimeoutMs_ = server_->getIntegerOption(QvtpServer::RECEIVE_TIMEOUT);
    const int bufferSize = std::max(server_->getIntegerOption(QvtpServer::BUFFER_SIZE), 1);
    inputBuffer_.resize(static_cast<std::size_t>(bufferSize));
    pipe_->getInputStream()->rdbuf()->pubsetbuf(inputBuffer_.data(), bufferSize);
    if (server_->accessFlag_ == 0 || !server_->writable_) return;
    outputBuffer_.resize(static_cast<std::size_t>(bufferSize));
    pipe_->getOutputStream()->rdbuf()->pubsetbuf(outputBuffer_.data(), bufferSize);
}

void RequestWorker::serveRequests() {
    while (!stop_) {
        if (!serveRequest()) return;
    }
}

/// One turn of the loop: false to hang up.
bool RequestWorker::serveRequest() {
    pipe_->setReadTimeout(idleTimeoutMs_);
    QvtpServerRequest request(server_, pipe_->getInputStream(), &converter_);
    if (!awaitRequest(request)) return false;
    pipe_->setReadTimeout(receiveTimeoutMs_);
    if (!handle(request)) return false;
    if (giveUp_) {
        logDebug([&] { return "Give up " + fullName_ + " for a new request waiting for a worker thread."; });
        return false;
    }
    return skipBody(request);
}

bool RequestWorker::awaitRequest(QvtpServerRequest& request) {
    try {
        request.getStartLine();
        return true;
    } catch (TimeoutException& e) {
        logDebug(
            [&] { return "TimeoutException - " + fullName_ + " timed out waiting for a request.  " + e.getMessage(); });
    } catch (InterruptedException& e) {
        logDebug([&] { return "InterruptedException - " + fullName_ + ". " + e.getMessage(); });
    } catch (QvPipeException& e) {
        if (!stop_) {
            logError("QvPipeException - " + fullName_ + " error while reading request start line. " + e.getMessage());
        }
    }
    return false;
}

bool RequestWorker::handle(QvtpServerRequest& request) {
    try {
        return dispatch(request);
    } catch (IllegalStateException& e) {
        logFailure("IllegalStateException - ", e.getMessage(), request);
    } catch (InterruptedException& e) {
        logError("InterruptedException - " + fullName_ + ". " + e.getMessage());
    } catch (QvPipeException& e) {
        if (!stop_) logFailure("QvPipeException - ", e.getMessage(), request);
    } catch (const std::ios_base::failure&) {
        if (!hasFailedStream()) throw;  // of a stream of the handler's own
        if (!stop_) logFailure("QvPipeException - ", "A stream of the QvPipe was used after it failed.", request);
    }
    return false;
}

/// After its first failure, which is a QvPipeException, a standard stream throws failures of its own kind.
bool RequestWorker::hasFailedStream() const {
    return pipe_->getInputStream()->bad() || (!outputBuffer_.empty() && pipe_->getOutputStream()->bad());
}

void RequestWorker::logFailure(const char* kind, const std::string& message, QvtpServerRequest& request) const {
    logError(kind + fullName_ + ". " + message);
    logError("Could not process the " + request.getResource() + " request. The pipe will be closed.");
}

bool RequestWorker::dispatch(QvtpServerRequest& request) {
    const std::string method = request.getMethod();
    if (method == QvtpMessage::METHOD_NOTIFY) {
        handleNotify(request);
    } else if (method == QvtpMessage::METHOD_POST && server_->accessFlag_ != 0) {
        handlePost(request);
    } else {
        // The worker's name stands where the method might be expected: log readers match this text.
        logError("Unrecognized request method (" + fullName_ + "), the full message will be ignored.");
        return false;
    }
    return true;
}

void RequestWorker::handleNotify(QvtpServerRequest& request) {
    logDebug([&] { return "Begin processing of NOTIFY request (" + fullName_ + ")."; });
    ++server_->totalNotifies_;
    require(server_->getHandler()).handleNotify(&request);
    logDebug([&] { return "Complete processing of NOTIFY request (" + fullName_ + ")."; });
}

void RequestWorker::handlePost(QvtpServerRequest& request) {
    logDebug([&] { return "Begin processing of POST request (" + fullName_ + ")."; });
    QvtpServerResponse response(server_, pipe_->getOutputStream(), &converter_);
    ++server_->totalPosts_;
    require(server_->getHandler()).handlePost(&request, &response);
    logDebug([&] { return "Complete processing of POST request (" + fullName_ + ")."; });
}

/// Moves the stream to the next message, over what the handler left of this one. False if that is too much or fails.
bool RequestWorker::skipBody(QvtpServerRequest& request) {
    const std::shared_ptr<InputBuffer> body = request.bodyReader();
    std::uint64_t budget = MAX_SKIPPED_BYTES;
    try {
        while (!body->isComplete()) {
            if (!body->skipSome(budget)) return false;
        }
        return true;
    } catch (QvPipeException&) {
        return false;  // the client has gone or fallen silent; its request was handled
    }
}

}  // namespace Quovane::Internal::Qvtp
