#pragma once

#include "platform/Deadline.h"
#include "platform/HandleTable.h"
#include "platform/InputWake.h"
#include "platform/Operation_win32.h"
#include "platform/PipeBackEnd.h"

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// What a pipe handle stands for: a waiting instance or one end of a connection. It owns the pipe and the event of all
/// its operations. A close waits for the running calls (PipeCall) before it releases both, so it can neither take the
/// event away from a thread that is about to wait on it, nor free memory that the system still writes to.
class PipeObject {
  public:
    PipeObject() = default;
    ~PipeObject() { release(); }
    PipeObject(const PipeObject&) = delete;
    PipeObject& operator=(const PipeObject&) = delete;

    /// Takes both over. `event` may be null: the pipe can then only be closed.
    void adopt(HANDLE pipe, HANDLE event);

    HANDLE pipe() const { return pipe_; }
    HANDLE event() const { return event_; }
    bool isClosed() const { return closed_; }

    /// A call begins, ends.
    void enter() { ++calls_; }
    void leave();
    /// Ends every running call, then releases pipe and event. No call may begin any more.
    void close();

    /// Waits until the operation, which was reported as pending, signals the event.
    DWORD wait(const Operation& operation, const Deadline& deadline) const;
    /// The outcome of an operation whose wait has ended: ERROR_IO_PENDING for success, as the last error reads after a
    /// pending operation that succeeded, or why it failed.
    DWORD finish(const Operation& operation, DWORD& count) const;
    /// Before the wait for an operation that an earlier call began: the event may be signalled, or not, by another one.
    void prepareToWaitAgain(const Operation& operation) const;
    /// Keeps what the system may still write to until it has completed, at the latest until the pipe is released.
    void keep(std::unique_ptr<Operation> operation);

    // What calls that timed out have left for the next of their kind. Like the pipe itself, for one thread at a
    // time.
    std::unique_ptr<Operation> pendingRead;
    std::unique_ptr<Operation> pendingConnect;
    std::string unread;       // bytes that came for an earlier, larger read
    bool endAwaited = false;  // the end came during a wait for input

    // A wait for input, which another thread may end without closing (InputWake.h).
    /// False if the wait was woken before it began.
    bool beginInputWait() { return wake_.begin(); }
    void endInputWait();
    void wakeInputWait();
    /// After an operation has begun, which resets the event: signals it again if the wait was woken meanwhile.
    void renewWake();

  private:
    void release();
    void settle(std::unique_ptr<Operation> operation) const;

    HANDLE pipe_ = nullptr;   // null when released
    HANDLE event_ = nullptr;  // null if none could be made
    std::atomic<bool> closed_{false};
    std::atomic<int> calls_{0};
    std::mutex mutex_;              // guards abandoned_, and the notice of the last call to a close
    std::condition_variable left_;  // the last call has ended
    bool abandoned_ = false;        // a close could not wait any longer: the last call releases
    std::vector<std::unique_ptr<Operation>> kept_;
    InputWake wake_;
};

/// When a process ends and its threads have disappeared, one of them with this lock held, the system ends the process
/// at once instead of waiting for it.
class SlimLock {
  public:
    void lock() { ::AcquireSRWLockExclusive(&lock_); }
    void unlock() { ::ReleaseSRWLockExclusive(&lock_); }

  private:
    SRWLOCK lock_ = SRWLOCK_INIT;
};

/// A value is the system's own handle with a running number above it: the system gives its values out again after a
/// close, and a stale handle must not mean another pipe then.
class NumberedHandles {
  public:
    NativeHandle next(const PipeObject& object);

  private:
    std::uint32_t number_ = 0;
};

using PipeTable = HandleTable<PipeObject, SlimLock, NumberedHandles>;
PipeTable& pipeTable();

}  // namespace Quovane::Internal::Qvtp
