#include "io/PipeControl.h"

#include <qvtp/io/InterruptedException.h>

#include "platform/PipePlatform.h"
#include "platform/ServerPipePlatform.h"

namespace Quovane::Internal::Qvtp {

PipeControl::Input PipeControl::awaitInput(const QvPipe& pipe, int timeoutMs) {
    switch (platformAwaitInput(pipe.pipeHandle_, pipe.eventHandle_, timeoutMs)) {
        case InputResult::TIMED_OUT:
            return Input::TIMED_OUT;
        case InputResult::WOKEN:
            return Input::WOKEN;
        case InputResult::ABORTED:
            throw Quovane::Io::InterruptedException(READ_ABORTED);
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

bool PipeControl::hasClient(const ServerQvPipe& server) {
    return server.handingOver_ || platformHasClient(server.pipeHandle_);
}

void PipeControl::giveAway(ServerQvPipe& server) {
    server.handingOver_ = false;
}

}  // namespace Quovane::Internal::Qvtp
