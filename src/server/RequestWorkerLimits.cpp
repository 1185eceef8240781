// The part of RequestWorker that keeps the limits of its server.

#include <qvtp/message/QvtpMessage.h>

#include "io/PipeControl.h"
#include "logging/Log.h"
#include "message/InputBuffer.h"
#include "server/LimitedInput.h"
#include "server/RequestWorker.h"

#include <algorithm>
#include <chrono>
#include <ios>

namespace Quovane::Internal::Qvtp {

using namespace std::chrono_literals;
using Quovane::Qvtp::QvtpMessage;

namespace {

// How long a client that was refused may go on to write, so that it comes to read why. One that was slow has had its
// time.
constexpr auto MAX_DROPPING = 1s;
constexpr auto MAX_DROPPING_OF_THE_SLOW = 100ms;
constexpr int MAX_DROPPING_PAUSE_MS = 100;

}  // namespace

/// The handler's own exception may pass.
bool RequestWorker::serveLimitedRequest(std::istream& in, const RestInput* rest) {
    LimitedInput limited(in, *pipe_, limits_);
    answered_ = false;
    /// A worker whose handler has failed is still asked for its streams.
    const struct Use {
        LimitedInput*& place;
        Use(LimitedInput*& where, LimitedInput& input) : place(where) { place = &input; }
        ~Use() { place = nullptr; }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
    } use(limited_, limited);
    const bool alive = serveBegunRequest(limited, rest);
    if (!isOverLimit()) return alive;
    if (limited.status() == 0) limited.refuseBody();
    refuse(limited);
    return false;
}

bool RequestWorker::isOverLimit() const {
    if (limited_ == nullptr) return false;
    return limited_->status() != 0 || (body_ != nullptr && body_->isOverLimit());
}

void RequestWorker::refuse(const LimitedInput& limited) {
    if (stop_) return;
    logWarn([&] { return "Limit exceeded (" + fullName_ + "). " + limited.reason() + " The pipe will be closed."; });
    if (!limited.isPost() || answered_ || outputBuffer_ == nullptr || pipe_->getOutputStream()->bad()) return;
    try {
        answerError(limited.status());
        const bool isSlow = limited.status() == QvtpMessage::STATUS_REQUEST_TIMEOUT;
        dropInput(Clock::now() + (isSlow ? MAX_DROPPING_OF_THE_SLOW : MAX_DROPPING));
    } catch (const std::ios_base::failure&) {
        // The client has gone.
    }
}

/// A client reads the answer only when its request is written.
void RequestWorker::dropInput(Clock::time_point end) {
    char dropped[4096];
    std::streambuf& area = *pipe_->getInputStream()->rdbuf();
    while (!stop_ && Clock::now() < end) {
        while (area.in_avail() > 0) area.sgetn(dropped, std::min<std::streamsize>(area.in_avail(), sizeof dropped));
        if (PipeControl::awaitInput(*pipe_, MAX_DROPPING_PAUSE_MS, false) != PipeControl::Input::THERE) return;
        const auto there = std::min(PipeControl::available(*pipe_), sizeof dropped);
        if (there == 0 && area.in_avail() == 0) return;  // the end
        if (there > 0) pipe_->readPipe(dropped, 0, static_cast<int>(there), MAX_DROPPING_PAUSE_MS);
    }
}

}  // namespace Quovane::Internal::Qvtp
