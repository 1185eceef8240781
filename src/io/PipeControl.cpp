#include "io/PipeControl.h"

#include "platform/PipePlatform.h"

namespace Quovane::Internal::Qvtp {

PipeControl::Input PipeControl::awaitInput(const QvPipe& pipe, int timeoutMs) {
    switch (platformAwaitInput(pipe.pipeHandle_, pipe.eventHandle_, timeoutMs)) {
        case InputResult::TIMED_OUT:
            return Input::TIMED_OUT;
        case InputResult::WOKEN:
            return Input::WOKEN;
        default:
            return Input::THERE;
    }
}

void PipeControl::wake(const QvPipe& pipe) {
    platformWake(pipe.pipeHandle_);
}

std::size_t PipeControl::available(const QvPipe& pipe) {
    return platformAvailable(pipe.pipeHandle_);
}

void PipeControl::endReading(const QvPipe& pipe) {
    platformEndReading(pipe.pipeHandle_);
}

bool PipeControl::peerHasClosed(const QvPipe& pipe) {
    return platformPeerHasClosed(pipe.pipeHandle_);
}

}  // namespace Quovane::Internal::Qvtp
