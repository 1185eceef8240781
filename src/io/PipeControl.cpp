#include "io/PipeControl.h"

#include <qvtp/io/InterruptedException.h>

#include "io/PipeStream.h"
#include "io/WriteCheck.h"
#include "platform/PipePlatform.h"
#include "platform/ServerPipePlatform.h"

namespace Quovane::Internal::Qvtp {

PipeControl::Input PipeControl::awaitInput(const QvPipe& pipe, int timeoutMs, bool wakeable) {
    auto* stream = static_cast<QvPipe::InputStream*>(pipe.inputStream_.get());
    if (stream != nullptr && !stream->hasRoom()) stream = nullptr;
    int taken = 0;
    const int result =
        platformTakeInput(pipe.pipeHandle_, pipe.eventHandle_, stream != nullptr ? stream->area() : nullptr,
                          stream != nullptr ? stream->areaSize() : 0, timeoutMs, wakeable, taken);
    if (taken > 0) stream->filled(taken);
    switch (result) {
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

MessageSink* PipeControl::sinkOf(const QvPipe& pipe) {
    auto* const stream = static_cast<QvPipe::OutputStream*>(pipe.outputStream_.get());
    return stream != nullptr && stream->isDirect() ? stream : nullptr;
}

void PipeControl::write(const QvPipe& pipe, const char* first, std::size_t firstLength, const char* second,
                        std::size_t secondLength) {
    checkWritten(platformWriteBoth(pipe.pipeHandle_, pipe.eventHandle_, first, firstLength, second, secondLength));
}

void PipeControl::wake(const QvPipe& pipe) {
    platformWake(pipe.pipeHandle_);
}

std::size_t PipeControl::available(const QvPipe& pipe) {
    return platformAvailable(pipe.pipeHandle_);
}

bool PipeControl::hadRoomForMore(const QvPipe& pipe) {
    return static_cast<const QvPipe::InputStream&>(*pipe.inputStream_).hadRoomForMore();
}

std::string PipeControl::peek(const QvPipe& pipe) {
    std::string bytes(available(pipe), '\0');
    bytes.resize(platformPeek(pipe.pipeHandle_, bytes.data(), bytes.size()));
    return bytes;
}

void PipeControl::endReading(const QvPipe& pipe) {
    platformEndReading(pipe.pipeHandle_);
}

bool PipeControl::peerHasClosed(const QvPipe& pipe) {
    return platformPeerHasClosed(pipe.pipeHandle_);
}

PipeControl::Peer PipeControl::peerOf(const QvPipe& pipe) {
    const PeerIds ids = platformPeer(pipe.pipeHandle_);
    return {ids.processId, ids.userId, ids.groupId};
}

bool PipeControl::hasClient(const ServerQvPipe& server) {
    return server.handingOver_ || hasUnacceptedClient(server);
}

bool PipeControl::hasUnacceptedClient(const ServerQvPipe& server) {
    return platformHasClient(server.pipeHandle_);
}

void PipeControl::giveAway(ServerQvPipe& server) {
    server.handingOver_ = false;
}

}  // namespace Quovane::Internal::Qvtp
