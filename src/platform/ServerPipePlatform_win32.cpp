#include "platform/ServerPipePlatform.h"

#include "platform/Deadline.h"
#include "platform/Operation_win32.h"
#include "platform/PipeLog.h"
#include "platform/PipeObject_win32.h"

#include <windows.h>

#include <memory>
#include <new>
#include <utility>

// Results are judged by the last error. Log calls leave it as they found it.

namespace Quovane::Internal::Qvtp {

namespace {

constexpr DWORD BUFFER_SIZE = 65536;
constexpr DWORD PAUSE_MS = 100;
constexpr DWORD PAUSE_STEP_MS = 5;

HANDLE createInstance(const std::string& path, bool readable, bool writable, bool first) {
    DWORD mode = FILE_FLAG_OVERLAPPED;
    if (readable) mode |= PIPE_ACCESS_INBOUND;
    if (writable) mode |= PIPE_ACCESS_OUTBOUND;
    if (first) mode |= FILE_FLAG_FIRST_PIPE_INSTANCE;
    SECURITY_ATTRIBUTES security{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
    return ::CreateNamedPipeA(path.c_str(), mode, PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT,
                              PIPE_UNLIMITED_INSTANCES, BUFFER_SIZE, BUFFER_SIZE, 0, &security);
}

int reportConnectError(DWORD error) {
    PipeLog::acceptFailed(error);
    return AcceptResult::CONNECT_ERROR;
}

/// Waits for a client on one instance. A wait that times out stays pending, and the next accept goes on with it: begun
/// anew each time, they would pile up until a client comes.
class Accepting {
  public:
    explicit Accepting(PipeObject& object) : object_(object) {}

    int run(int timeoutMs) {
        const Deadline deadline = Deadline::after(timeoutMs);
        const DWORD error = continueOrBegin();
        if (error == ERROR_SUCCESS) return AcceptResult::CONNECTED;
        PipeLog::acceptBegun(error);
        switch (error) {
            case ERROR_PIPE_CONNECTED:
            case ERROR_NO_DATA:  // the client has gone again; what it wrote is there
                return AcceptResult::CONNECTED;
            case ERROR_IO_PENDING:
                return complete(deadline);
            default:
                return reportLastingError(error);
        }
    }

  private:
    DWORD continueOrBegin() {
        operation_ = std::move(object_.pendingConnect);
        if (operation_ != nullptr) {
            DWORD count = 0;
            object_.prepareToWaitAgain(*operation_);
            if (operation_->isPending()) return ERROR_IO_PENDING;
            if (object_.finish(*operation_, count) == ERROR_IO_PENDING) return ERROR_PIPE_CONNECTED;
            // It has failed meanwhile, perhaps only because the thread that began it is gone: the next says why.
        }
        return begin();
    }

    DWORD begin() {
        operation_ = std::make_unique<Operation>(object_.event(), 0);
        return ::ConnectNamedPipe(object_.pipe(), operation_->record()) ? ERROR_SUCCESS : ::GetLastError();
    }

    int complete(const Deadline& deadline) {
        DWORD error = ERROR_IO_PENDING;
        const DWORD waited = waitForClient(deadline, error);
        PipeLog::acceptWaited(waited);
        if (waited != WAIT_OBJECT_0) {
            object_.pendingConnect = std::move(operation_);
            return waited == WAIT_TIMEOUT ? AcceptResult::TIMED_OUT : AcceptResult::WAIT_ERROR;
        }
        PipeLog::acceptCompleted(error);
        switch (error) {
            case ERROR_SUCCESS:
            case ERROR_PIPE_CONNECTED:
            case ERROR_IO_PENDING:
            case ERROR_NO_DATA:
                return AcceptResult::CONNECTED;
            case ERROR_OPERATION_ABORTED:
                return AcceptResult::ABORTED;
            default:
                return reportLastingError(error);
        }
    }

    /// An operation that is cancelled because the thread that began it ends, while this one waits, is begun anew.
    DWORD waitForClient(const Deadline& deadline, DWORD& error) {
        for (;;) {
            const DWORD waited = object_.wait(*operation_, deadline);
            if (waited != WAIT_OBJECT_0) return waited;
            const bool closed = object_.isClosed();
            if (!closed && operation_->isPending()) {  // something else has signalled the event
                object_.prepareToWaitAgain(*operation_);
                continue;
            }
            DWORD count = 0;
            error = object_.finish(*operation_, count);
            if (operation_->isPending()) object_.pendingConnect = std::move(operation_);
            if (closed || error != ERROR_OPERATION_ABORTED) return waited;
            error = begin();
            if (error != ERROR_IO_PENDING) return waited;
        }
    }

    /// What keeps a client from being taken may be there for the next try too: keep the caller's loop from spinning.
    int reportLastingError(DWORD error) {
        const int result = reportConnectError(error);
        for (DWORD waited = 0; waited < PAUSE_MS && !object_.isClosed(); waited += PAUSE_STEP_MS) {
            ::Sleep(PAUSE_STEP_MS);
        }
        return result;
    }

    PipeObject& object_;
    std::unique_ptr<Operation> operation_;
};

int acceptOn(NativeHandle pipeHandle, int timeoutMs) try {
    const PipeCall call(pipeHandle);
    if (call) return Accepting(call.object()).run(timeoutMs);
    PipeLog::acceptRefused(ERROR_INVALID_HANDLE);
    return AcceptResult::CONNECT_ERROR;
} catch (const std::bad_alloc&) {
    const int result = reportConnectError(ERROR_NOT_ENOUGH_MEMORY);
    ::Sleep(PAUSE_MS);
    return result;
}

int reportCreateError(DWORD error) {
    PipeLog::createFailed(error);
    return static_cast<int>(error);
}

int makeInstance(const std::string& path, bool readable, bool writable, bool first, NativeHandle& pipeHandle,
                 NativeHandle& eventHandle) try {
    const auto object = std::make_shared<PipeObject>();
    const HANDLE pipe = createInstance(path, readable, writable, first);
    if (pipe == INVALID_HANDLE_VALUE) return reportCreateError(::GetLastError());
    const HANDLE event = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const DWORD eventError = ::GetLastError();
    // Unlike a client's end, an instance whose event is null is there: clients may wait for it, its accept fails.
    const bool failed = event == INVALID_HANDLE_VALUE;
    object->adopt(pipe, failed ? nullptr : event);
    pipeHandle = HandleTable::instance().add(object);
    eventHandle = reinterpret_cast<NativeHandle>(event);
    if (failed) {
        PipeLog::eventFailed(eventError);
        return static_cast<int>(eventError);
    }
    PipeLog::instanceCreated(pipeHandle, eventHandle);
    return ERROR_SUCCESS;
} catch (const std::bad_alloc&) {
    return reportCreateError(ERROR_NOT_ENOUGH_MEMORY);
}

}  // namespace

int platformCreateInstance(const std::string& path, bool readable, bool writable, bool first, NativeHandle& pipeHandle,
                           NativeHandle& eventHandle) {
    pipeHandle = INVALID_NATIVE_HANDLE;
    eventHandle = INVALID_NATIVE_HANDLE;
    return makeInstance(path, readable, writable, first, pipeHandle, eventHandle);
}

int platformCreateNextInstance(NativeHandle, const std::string& path, bool readable, bool writable,
                               NativeHandle& pipeHandle, NativeHandle& eventHandle) {
    return platformCreateInstance(path, readable, writable, false, pipeHandle, eventHandle);
}

int platformAccept(NativeHandle pipeHandle, NativeHandle, int timeoutMs) {
    PipeLog::acceptCalled();
    const int result = acceptOn(pipeHandle, timeoutMs);
    if (result == AcceptResult::ABORTED) return result;
    PipeLog::acceptReturns(result);
    return result;
}

bool platformHasClient(NativeHandle) {
    return false;
}

void platformCloseServer(NativeHandle pipeHandle, NativeHandle eventHandle) {
    PipeLog::instanceCloses(pipeHandle, eventHandle);
    if (const auto object = HandleTable::instance().remove(pipeHandle)) object->close();
}

}  // namespace Quovane::Internal::Qvtp
