#include "platform/PipeBackEnd.h"

#include "platform/Deadline.h"
#include "platform/Operation_win32.h"
#include "platform/PipeLog.h"
#include "platform/PipeObject_win32.h"

#include <memory>
#include <utility>

// Results are judged by the last error. Log calls leave it as they found it.

namespace Quovane::Internal::Qvtp {

namespace {

constexpr DWORD BUFFER_SIZE = 65536;
constexpr int PAUSE_STEP_MS = 5;

// ---- Accepting ----

/// Waits for a client on one instance. A wait that times out stays pending, and the next accept goes on with it: begun
/// anew each time, they would pile up until a client comes.
class Accepting {
  public:
    explicit Accepting(PipeObject& object) : object_(object) {}

    int run(int timeoutMs) {
        const Deadline deadline = Deadline::after(timeoutMs);
        const DWORD error = begin();
        if (error == ERROR_SUCCESS) return AcceptResult::CONNECTED;
        PipeLog::acceptBegun(error);
        switch (error) {
            case ERROR_PIPE_CONNECTED:
            case ERROR_NO_DATA:  // the client has gone again; what it wrote is there
                return AcceptResult::CONNECTED;
            case ERROR_IO_PENDING:
                return complete(deadline);
            default:
                return fail(error);
        }
    }

  private:
    /// Goes on with what an accept that timed out has left.
    DWORD begin() {
        operation_ = std::move(object_.pendingConnect);
        if (operation_ != nullptr) {
            DWORD count = 0;
            object_.prepareToWaitAgain(*operation_);
            if (operation_->isPending()) return ERROR_IO_PENDING;
            if (object_.finish(*operation_, count) == ERROR_IO_PENDING) return ERROR_PIPE_CONNECTED;
            // It has failed meanwhile, perhaps only because the thread that began it is gone: the next says why.
        }
        return takeClient();
    }

    /// One try.
    DWORD takeClient() {
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
                return fail(error);
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
            error = takeClient();
            if (error != ERROR_IO_PENDING) return waited;
        }
    }

    /// What keeps a client from being taken may be there for the next try too: keep the caller's loop from spinning.
    int fail(DWORD error) const {
        PipeLog::acceptFailed(error);
        pause();
        return AcceptResult::CONNECT_ERROR;
    }

    /// A close ends it.
    void pause() const {
        for (int waited = 0; waited < BackEnd::ACCEPT_PAUSE_MS && !object_.isClosed(); waited += PAUSE_STEP_MS) {
            ::Sleep(PAUSE_STEP_MS);
        }
    }

    PipeObject& object_;
    std::unique_ptr<Operation> operation_;
};

// ---- Instances ----

HANDLE openInstance(const std::string& path, bool readable, bool writable, bool first) {
    DWORD mode = FILE_FLAG_OVERLAPPED;
    if (readable) mode |= PIPE_ACCESS_INBOUND;
    if (writable) mode |= PIPE_ACCESS_OUTBOUND;
    if (first) mode |= FILE_FLAG_FIRST_PIPE_INSTANCE;
    SECURITY_ATTRIBUTES security{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
    return ::CreateNamedPipeA(path.c_str(), mode, PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT,
                              PIPE_UNLIMITED_INSTANCES, BUFFER_SIZE, BUFFER_SIZE, 0, &security);
}

}  // namespace

namespace BackEnd {

int createInstance(NativeHandle, const std::string& path, bool readable, bool writable, bool first,
                   NativeHandle& pipeHandle, NativeHandle& eventHandle) {
    const auto object = std::make_shared<PipeObject>();
    const HANDLE pipe = openInstance(path, readable, writable, first);
    if (pipe == INVALID_HANDLE_VALUE) return static_cast<int>(::GetLastError());
    const HANDLE event = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const DWORD eventError = ::GetLastError();
    // Unlike a client's end, an instance whose event is null is there: clients may wait for it, its accept fails.
    const bool failed = event == INVALID_HANDLE_VALUE;
    object->adopt(pipe, failed ? nullptr : event);
    pipeHandle = pipeTable().add(object);
    eventHandle = reinterpret_cast<NativeHandle>(event);
    return failed ? static_cast<int>(eventError) : ERROR_SUCCESS;
}

int accept(PipeObject& object, int timeoutMs) {
    return Accepting(object).run(timeoutMs);
}

bool hasClient(PipeObject&) {
    return false;
}

}  // namespace BackEnd

}  // namespace Quovane::Internal::Qvtp
