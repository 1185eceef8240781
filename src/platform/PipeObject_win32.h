#pragma once

#include "platform/Operation_win32.h"
#include "platform/PipePlatform.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// What a pipe handle stands for: a waiting instance or one end of a connection. It owns the pipe and the event of all
/// its operations, and closes them when the last reference goes. Every running call holds one, so a close can neither
/// take the event away from a thread that is about to wait on it, nor free memory that the system still writes to.
class PipeObject {
  public:
    /// `event` may be null: the pipe can then only be closed.
    PipeObject(HANDLE pipe, HANDLE event) : pipe_(pipe), event_(event) {}
    ~PipeObject();
    PipeObject(const PipeObject&) = delete;
    PipeObject& operator=(const PipeObject&) = delete;

    HANDLE pipe() const { return pipe_; }
    HANDLE event() const { return event_; }
    bool isClosed() const { return closed_; }

    /// Ends every running call and drops the reference, which must be out of the table already.
    static void close(std::shared_ptr<PipeObject> object);

    /// Waits until the pending operation signals the event, at most `timeoutMs` (0: without limit).
    DWORD wait(int timeoutMs) const;
    /// The outcome of an operation whose wait has ended: ERROR_IO_PENDING for success, as the last error reads after a
    /// pending operation that succeeded, or why it failed.
    DWORD finish(Operation& operation, DWORD& count) const;
    /// Before the wait for an operation that an earlier call began: the event may be signalled, or not, by another one.
    void prepareToWaitAgain(const Operation& operation) const;
    /// Keeps what the system may still write to until it has completed, at the latest until the pipe is closed.
    void keep(std::unique_ptr<Operation> operation);

    // What calls that timed out have left behind for the next of their kind. Like the pipe itself, for one thread at a
    // time.
    std::unique_ptr<Operation> pendingRead;
    std::unique_ptr<Operation> pendingConnect;
    std::string unread;  // bytes that came for an earlier, larger read

  private:
    static void settle(HANDLE pipe, std::unique_ptr<Operation> operation);

    const HANDLE pipe_;
    const HANDLE event_;  // null if none could be made
    std::atomic<bool> closed_{false};
    std::vector<std::unique_ptr<Operation>> kept_;
};

/// The pipes of this process by handle. The values are the system's own, which it gives out again after a close: a
/// stale handle means nothing until then, and another pipe from then on.
class HandleTable {
  public:
    static HandleTable& instance();

    NativeHandle add(std::shared_ptr<PipeObject> object);
    /// Null for a stale or invalid handle.
    std::shared_ptr<PipeObject> find(NativeHandle handle);
    std::shared_ptr<PipeObject> remove(NativeHandle handle);

    static NativeHandle valueOf(HANDLE handle) { return reinterpret_cast<NativeHandle>(handle); }

  private:
    HandleTable();
    ~HandleTable() = delete;
    struct State;
    State* const state_;
};

}  // namespace Quovane::Internal::Qvtp
