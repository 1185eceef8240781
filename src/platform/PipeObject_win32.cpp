#include "platform/PipeObject_win32.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Cancelled calls leave within microseconds. The limits are for a system that loses a cancellation, and for the end of
// a process, where threads disappear in the middle of a call.
constexpr auto BEFORE_CANCELLING_AGAIN = 10ms;
constexpr auto BEFORE_WAKING = 100ms;
constexpr auto PATIENCE = 500ms;

// Sleep(1) can take a whole tick of the system's clock, 15.6 ms, so the first rounds of a wait only give way.
constexpr int ROUNDS_WITHOUT_SLEEP = 50;

/// A handle of the system has 32 significant bits (Microsoft, "Interprocess Communication Between 32-bit and 64-bit
/// Applications"), which leaves the upper half of a value for the running number.
static_assert(sizeof(NativeHandle) == 8);
constexpr int NUMBER_SHIFT = 32;
constexpr std::uint32_t LAST_NUMBER = 0x7FFFFFFF;  // keeps every value apart from INVALID_NATIVE_HANDLE

NativeHandle valueOf(HANDLE handle, std::uint32_t number) {
    const auto low = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle));
    return static_cast<NativeHandle>(static_cast<std::uint64_t>(number) << NUMBER_SHIFT | low);
}

}  // namespace

const void* printable(NativeHandle handle) {
    if (handle == INVALID_NATIVE_HANDLE) return INVALID_HANDLE_VALUE;
    return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(static_cast<std::uint32_t>(handle)));
}

void PipeObject::adopt(HANDLE pipe, HANDLE event) {
    pipe_ = pipe;
    event_ = event;
}

void PipeObject::leave() {
    if (--calls_ > 0 || !closed_) return;
    const std::lock_guard<std::mutex> guard(mutex_);
    left_.notify_all();
    if (abandoned_) release();
}

/// Mark closed, wake, wait until they have left, release. A call whose operation begins only after the cancellation
/// sees the mark and cancels it itself.
void PipeObject::close() {
    closed_ = true;
    std::unique_lock<std::mutex> lock(mutex_);
    for (const auto start = Clock::now(); calls_ > 0 && Clock::now() < start + PATIENCE;) {
        ::CancelIoEx(pipe_, nullptr);
        if (event_ != nullptr && Clock::now() >= start + BEFORE_WAKING) ::SetEvent(event_);
        left_.wait_for(lock, BEFORE_CANCELLING_AGAIN);
    }
    abandoned_ = calls_ > 0;
    if (!abandoned_) release();
}

/// No call is running any more. What is still pending was left by time-outs.
void PipeObject::release() {
    if (pipe_ == nullptr) return;
    ::CancelIoEx(pipe_, nullptr);
    settle(std::move(pendingRead));
    settle(std::move(pendingConnect));
    for (auto& operation : kept_) settle(std::move(operation));
    ::CloseHandle(pipe_);
    if (event_ != nullptr) ::CloseHandle(event_);
    pipe_ = event_ = nullptr;
}

/// Frees an operation as soon as the system has let go of it, or never.
void PipeObject::settle(std::unique_ptr<Operation> operation) const {
    if (operation == nullptr) return;
    const auto end = Clock::now() + PATIENCE;
    for (int round = 0; operation->isPending() && Clock::now() < end; ++round) {
        ::CancelIoEx(pipe_, operation->record());
        round < ROUNDS_WITHOUT_SLEEP ? static_cast<void>(::SwitchToThread()) : ::Sleep(1);
    }
    if (operation->isPending()) static_cast<void>(operation.release());
}

DWORD PipeObject::wait(const Operation& operation, const Deadline& deadline) const {
    // The close may have cancelled before this operation began. One that comes from here on cancels it.
    if (closed_) ::CancelIoEx(pipe_, operation.record());
    if (deadline.isUnlimited()) return ::WaitForSingleObject(event_, INFINITE);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline.left());
    return ::WaitForSingleObject(event_, static_cast<DWORD>(std::min<std::int64_t>(left.count(), INFINITE - 1)));
}

DWORD PipeObject::finish(const Operation& operation, DWORD& count) const {
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
    try {
        kept_.push_back(std::move(operation));
    } catch (const std::bad_alloc&) {
        static_cast<void>(operation.release());  // lost rather than freed under the system's hands
    }
}

void PipeObject::endInputWait() {
    wake_.end([this] { ::ResetEvent(event_); });
}

void PipeObject::renewWake() {
    wake_.renew([this] { ::SetEvent(event_); });
}

void PipeObject::wakeInputWait() {
    wake_.wake([this] { ::SetEvent(event_); });
}

NativeHandle NumberedHandles::next(const PipeObject& object) {
    number_ = number_ % LAST_NUMBER + 1;
    return valueOf(object.pipe(), number_);
}

PipeTable& pipeTable() {
    static PipeTable* const table = new PipeTable;  // never freed: destructors of static objects may close pipes
    return *table;
}

}  // namespace Quovane::Internal::Qvtp
