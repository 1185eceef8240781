#include "platform/ServerPipePlatform.h"

#include "common/System.h"
#include "platform/PipeBackEnd.h"
#include "platform/PipeLog.h"
#include "platform/SystemError.h"

#include <new>

namespace Quovane::Internal::Qvtp {

namespace {

int makeInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable, bool first,
                 NativeHandle& pipeHandle, NativeHandle& eventHandle) try {
    return BackEnd::createInstance(sibling, path, readable, writable, first, pipeHandle, eventHandle);
} catch (const std::bad_alloc&) {
    return SystemError::NOT_ENOUGH_MEMORY;
}

int createInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable, bool first,
                   NativeHandle& pipeHandle, NativeHandle& eventHandle) {
    pipeHandle = INVALID_NATIVE_HANDLE;
    eventHandle = INVALID_NATIVE_HANDLE;
    const int error = makeInstance(sibling, path, readable, writable, first, pipeHandle, eventHandle);
    if (error == SystemError::NONE) {
        PipeLog::instanceCreated(pipeHandle, eventHandle);
    } else if (pipeHandle == INVALID_NATIVE_HANDLE) {
        PipeLog::createFailed(error);
    } else {
        PipeLog::eventFailed(error);
    }
    return error;
}

int acceptOn(NativeHandle pipeHandle, int timeoutMs) try {
    const PipeCall call(pipeHandle);
    if (call) return BackEnd::accept(call.object(), timeoutMs);
    PipeLog::acceptRefused(SystemError::INVALID_HANDLE);
    return AcceptResult::CONNECT_ERROR;
} catch (const std::bad_alloc&) {
    PipeLog::acceptFailed(SystemError::NOT_ENOUGH_MEMORY);
    System::sleepMs(BackEnd::ACCEPT_PAUSE_MS);
    return AcceptResult::CONNECT_ERROR;
}

}  // namespace

int platformCreateInstance(const std::string& path, bool readable, bool writable, bool first, NativeHandle& pipeHandle,
                           NativeHandle& eventHandle) {
    return createInstance(INVALID_NATIVE_HANDLE, path, readable, writable, first, pipeHandle, eventHandle);
}

int platformCreateNextInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable,
                               NativeHandle& pipeHandle, NativeHandle& eventHandle) {
    return createInstance(sibling, path, readable, writable, false, pipeHandle, eventHandle);
}

int platformAccept(NativeHandle pipeHandle, NativeHandle, int timeoutMs) {
    PipeLog::acceptCalled();
    const int result = acceptOn(pipeHandle, timeoutMs);
    if (result != AcceptResult::ABORTED) PipeLog::acceptReturns(result);
    return result;
}

bool platformHasClient(NativeHandle pipeHandle) {
    const PipeCall call(pipeHandle);
    return call && BackEnd::hasClient(call.object());
}

void platformCloseServer(NativeHandle pipeHandle, NativeHandle eventHandle) {
    PipeLog::instanceCloses(pipeHandle, eventHandle);
    BackEnd::handles().close(pipeHandle);
}

}  // namespace Quovane::Internal::Qvtp
