#include "platform/PipePlatform.h"

#include "platform/PipeBackEnd.h"
#include "platform/PipeFailure.h"
#include "platform/PipeLog.h"
#include "platform/SystemError.h"

#include <new>

namespace Quovane::Internal::Qvtp {

namespace {

int connectTo(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
              NativeHandle& eventHandle) try {
    return BackEnd::connect(path, readable, writable, timeoutMs, pipeHandle, eventHandle);
} catch (const std::bad_alloc&) {
    PipeLog::connectFailed(SystemError::NOT_ENOUGH_MEMORY);
    return ConnectResult::CANNOT_OPEN;
}

}  // namespace

int platformConnect(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
                    NativeHandle& eventHandle) {
    pipeHandle = INVALID_NATIVE_HANDLE;
    eventHandle = INVALID_NATIVE_HANDLE;
    const int result = connectTo(path, readable, writable, timeoutMs, pipeHandle, eventHandle);
    const bool lacksEvent = result != ConnectResult::CONNECTED && pipeHandle != INVALID_NATIVE_HANDLE;
    if (lacksEvent) PipeLog::eventFailed(result);
    return result;
}

int platformRead(NativeHandle pipeHandle, NativeHandle, char* buffer, int length, int timeoutMs) {
    const PipeCall call(pipeHandle);
    if (!call) return PipeFailure::refuseRead(SystemError::INVALID_HANDLE);
    return BackEnd::read(call.object(), buffer, length > 0 ? static_cast<std::size_t>(length) : 0, timeoutMs);
}

int platformWrite(NativeHandle pipeHandle, NativeHandle, const char* data, int length) {
    if (length <= 0) return WriteResult::WRITTEN;
    const PipeCall call(pipeHandle);
    if (!call) return PipeFailure::refuseWrite(SystemError::INVALID_HANDLE);
    return BackEnd::write(call.object(), data, static_cast<std::size_t>(length));
}

int platformWriteSome(NativeHandle pipeHandle, NativeHandle, const char* first, std::size_t firstLength,
                      const char* second, std::size_t secondLength, std::size_t& written) {
    written = 0;
    if (firstLength + secondLength == 0) return WriteResult::WRITTEN;
    const PipeCall call(pipeHandle);
    if (!call) return PipeFailure::refuseWrite(SystemError::INVALID_HANDLE);
    return BackEnd::writeSome(call.object(), first, firstLength, second, secondLength, written);
}

int platformWriteBoth(NativeHandle pipeHandle, NativeHandle, const char* first, std::size_t firstLength,
                      const char* second, std::size_t secondLength) {
    const PipeCall call(pipeHandle);
    if (!call) return PipeFailure::refuseWrite(SystemError::INVALID_HANDLE);
    if (firstLength + secondLength == 0) return WriteResult::WRITTEN;
    return BackEnd::writeBoth(call.object(), first, firstLength, second, secondLength);
}

int platformTakeInput(NativeHandle pipeHandle, NativeHandle, char* buffer, int length, int timeoutMs, bool wakeable,
                      int& taken) {
    taken = 0;
    const PipeCall call(pipeHandle);
    if (!call) return InputResult::FAILED;
    const auto size = length > 0 ? static_cast<std::size_t>(length) : 0;
    return BackEnd::takeInput(call.object(), buffer, size, timeoutMs, wakeable, taken);
}

void platformWake(NativeHandle pipeHandle) {
    const PipeCall call(pipeHandle);
    if (call) BackEnd::wake(call.object());
}

std::size_t platformAvailable(NativeHandle pipeHandle) {
    const PipeCall call(pipeHandle);
    return call ? BackEnd::available(call.object()) : 0;
}

std::size_t platformPeek(NativeHandle pipeHandle, char* buffer, std::size_t length) {
    const PipeCall call(pipeHandle);
    return call ? BackEnd::peek(call.object(), buffer, length) : 0;
}

void platformEndReading(NativeHandle pipeHandle) {
    const PipeCall call(pipeHandle);
    if (call) BackEnd::endReading(call.object());
}

bool platformPeerHasClosed(NativeHandle pipeHandle) {
    const PipeCall call(pipeHandle);
    return !call || BackEnd::peerHasClosed(call.object());
}

PeerIds platformPeer(NativeHandle pipeHandle) {
    const PipeCall call(pipeHandle);
    return call ? BackEnd::peer(call.object()) : PeerIds();
}

void platformClose(NativeHandle pipeHandle, NativeHandle eventHandle) {
    PipeLog::pipeCloses(pipeHandle, eventHandle);
    BackEnd::handles().close(pipeHandle);
}

}  // namespace Quovane::Internal::Qvtp
