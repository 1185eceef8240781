#pragma once

#include "platform/Deadline.h"
#include "platform/Descriptor_linux.h"
#include "platform/HandleTable.h"
#include "platform/InputWake.h"
#include "platform/LocalSocket_linux.h"
#include "platform/PipeBackEnd.h"
#include "platform/ReadAhead_linux.h"
#include "platform/ReaderPace_linux.h"
#include "platform/ServedName_linux.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

namespace Quovane::Internal::Qvtp {

/// What a pipe handle stands for: a waiting instance or one end of a connection. Every running call holds a reference,
/// so a descriptor is closed, and its number can be used again, only when the last of them has left.
class PipeObject {
  public:
    PipeObject() = default;
    /// Closes an object that got no handle.
    ~PipeObject();
    PipeObject(const PipeObject&) = delete;
    PipeObject& operator=(const PipeObject&) = delete;

    /// A call begins, ends. Here the reference that it holds is enough.
    void enter() {}
    void leave() {}
    /// Marks the object closed, lets the peer see the end, and wakes every thread that waits on it. In a forked child
    /// it does nothing: a shutdown there would end the parent's connection.
    void close();
    bool isClosed() const { return closed; }

    /// Whether this process made it: a forked child inherits what it stands for, but not the right to end or to serve
    /// it.
    bool isOwn() const;

    /// Whether an operation can start at all whose direction is `allowed`: 0 or the number of a SystemError.
    int accessError(bool allowed) const;
    /// Waits until the connection is ready for `events` (as in poll): a close makes it so, since that ends it in both
    /// directions. Or until the event `ending` is signalled.
    LocalSocket::WaitResult wait(short events, const Deadline& deadline, int ending = -1) const;
    /// The same for an instance without a client, which waits for another descriptor; -1: for nothing else. A close
    /// signals its event. `watch` as in LocalSocket::wait.
    LocalSocket::WaitResult waitOn(int fd, short events, const Deadline& deadline, int watch = -1);
    /// Lets receives that block end before `left` is over, but not long before. False if that fails. For the thread
    /// that reads.
    bool limitReceive(std::chrono::nanoseconds left);

    bool readable = false;
    bool writable = false;
    Descriptor event;                    // of an instance without a client: signalled by a close while it waits
    Descriptor socket;                   // the connection; set before `connected`
    Descriptor wakeEvent;                // of a connection: a client's has it, a server's from its first wait that may
                                         // be woken on, if there are descriptors
    std::shared_ptr<ServedName> served;  // null for a client's end
    std::atomic<bool> connected{false};  // changed under ServedName::namesMutex() for a server's end
    std::atomic<bool> closed{false};     // the same
    std::atomic<bool> accepting{false};  // a client is being taken from the queue, or was; or there is none
    std::mutex taking;                   // held until it is clear which of these
    std::atomic<bool> starved{false};    // an accept found no descriptors left, and none has succeeded since
    std::uint32_t owner = 0;             // process id
    ReaderPace pace;                     // of the peer; only for the thread that writes
    ReadAhead ahead;                     // only for the thread that reads
    int writeTimeoutMs = WRITE_TIMEOUT_MS;
    bool awaitedBefore = false;  // a wait for input has ended without any; its thread waits on
    bool endAwaited = false;     // the end came during a wait for input; for the thread that reads

    // A wait for input, which another thread may end without closing (InputWake.h). For the thread that reads, except
    // for wakeInputWait().
    /// False if the wait was woken before it began.
    bool beginInputWait();
    void endInputWait();
    void wakeInputWait();

  private:
    InputWake wake_;
    std::atomic<int> waiters_{0};               // threads that wait on the event or are about to
    std::chrono::nanoseconds receiveLimit_{0};  // 0: none
};

/// Values count up, by more than one: the value after a pipe's is that of its event.
class CountedNumbers {
  public:
    NativeHandle next(const PipeObject&) { return std::exchange(next_, next_ + 4); }
    static NativeHandle eventHandleOf(NativeHandle pipeHandle) { return pipeHandle + 1; }

  private:
    NativeHandle next_ = 4;
};

using PipeTable = HandleTable<PipeObject, std::mutex, CountedNumbers>;
PipeTable& pipeTable();

}  // namespace Quovane::Internal::Qvtp
