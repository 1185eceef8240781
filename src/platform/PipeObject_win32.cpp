#include "platform/PipeObject_win32.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr DWORD STEP_MS = 1;
// Cancelled calls leave within microseconds. The limits are for a system that loses a cancellation, and for the end of
// a process, where threads disappear in the middle of a call.
constexpr int STEPS_BEFORE_WAKING = 100;
constexpr int MAX_STEPS = 300;

}  // namespace

/// No call is running any more. What is still pending was left behind by time-outs.
PipeObject::~PipeObject() {
    ::CancelIoEx(pipe_, nullptr);
    settle(pipe_, std::move(pendingRead));
    settle(pipe_, std::move(pendingConnect));
    for (auto& operation : kept_) settle(pipe_, std::move(operation));
    ::CloseHandle(pipe_);
    if (event_ != nullptr) ::CloseHandle(event_);
}

/// Frees an operation as soon as the system has let go of it, or never.
void PipeObject::settle(HANDLE pipe, std::unique_ptr<Operation> operation) {
    if (operation == nullptr) return;
    for (int step = 0; operation->isPending() && step < MAX_STEPS; ++step) {
        ::CancelIoEx(pipe, operation->record());
        ::Sleep(STEP_MS);
    }
    if (operation->isPending()) static_cast<void>(operation.release());
}

/// Mark closed, wake, wait until they have left, release. A call that had looked its object up but not yet begun its
/// operation when the first cancellation came is met by a later one.
void PipeObject::close(std::shared_ptr<PipeObject> object) {
    object->closed_ = true;
    ::CancelIoEx(object->pipe_, nullptr);
    for (int step = 0; object.use_count() > 1 && step < MAX_STEPS; ++step) {
        ::Sleep(STEP_MS);
        ::CancelIoEx(object->pipe_, nullptr);
        if (step >= STEPS_BEFORE_WAKING && object->event_ != nullptr) ::SetEvent(object->event_);
    }
}

DWORD PipeObject::wait(int timeoutMs) const {
    return ::WaitForSingleObject(event_, timeoutMs == 0 ? INFINITE : static_cast<DWORD>(timeoutMs));
}

DWORD PipeObject::finish(Operation& operation, DWORD& count) const {
    // Success does not touch the last error, so it has to be the pending code still, whatever was called meanwhile.
    ::SetLastError(ERROR_IO_PENDING);
    ::GetOverlappedResult(pipe_, operation.record(), &count, TRUE);
    const DWORD error = ::GetLastError();
    return closed_ && operation.isPending() ? ERROR_OPERATION_ABORTED : error;
}

void PipeObject::prepareToWaitAgain(const Operation& operation) const {
    ::ResetEvent(event_);
    if (!operation.isPending()) ::SetEvent(event_);
}

void PipeObject::keep(std::unique_ptr<Operation> operation) {
    const auto isComplete = [](const std::unique_ptr<Operation>& kept) { return !kept->isPending(); };
    kept_.erase(std::remove_if(kept_.begin(), kept_.end(), isComplete), kept_.end());
    kept_.push_back(std::move(operation));
}

struct HandleTable::State {
    std::mutex mutex;  // guards the objects
    std::unordered_map<NativeHandle, std::shared_ptr<PipeObject>> objects;
};

HandleTable::HandleTable() : state_(new State) {}

HandleTable& HandleTable::instance() {
    static HandleTable* const table = new HandleTable;  // never freed: destructors of static objects may close pipes
    return *table;
}

NativeHandle HandleTable::add(std::shared_ptr<PipeObject> object) {
    const NativeHandle handle = valueOf(object->pipe());
    std::lock_guard<std::mutex> guard(state_->mutex);
    state_->objects[handle] = std::move(object);
    return handle;
}

std::shared_ptr<PipeObject> HandleTable::find(NativeHandle handle) {
    std::lock_guard<std::mutex> guard(state_->mutex);
    const auto found = state_->objects.find(handle);
    return found != state_->objects.end() ? found->second : nullptr;
}

std::shared_ptr<PipeObject> HandleTable::remove(NativeHandle handle) {
    std::lock_guard<std::mutex> guard(state_->mutex);
    const auto found = state_->objects.find(handle);
    if (found == state_->objects.end()) return nullptr;
    std::shared_ptr<PipeObject> object = std::move(found->second);
    state_->objects.erase(found);
    return object;
}

}  // namespace Quovane::Internal::Qvtp
