#pragma once

#include "platform/Descriptor_linux.h"
#include "platform/PipePlatform.h"
#include "platform/ReaderPace_linux.h"
#include "platform/ServedName_linux.h"

#include <atomic>
#include <memory>
#include <mutex>

namespace Quovane::Internal::Qvtp {

/// What a pipe handle stands for: a waiting instance or one end of a connection. Every running call holds a reference,
/// so a descriptor is closed, and its number can be used again, only when the last of them has left.
struct PipeObject {
    PipeObject() = default;
    /// Closes an object that got no handle.
    ~PipeObject();
    PipeObject(const PipeObject&) = delete;
    PipeObject& operator=(const PipeObject&) = delete;

    bool readable = false;
    bool writable = false;
    Descriptor event;                      // signalled for good by the close
    Descriptor socket;                     // the connection; set before `connected`
    std::shared_ptr<Descriptor> listener;  // of an instance
    std::shared_ptr<ServedName> served;    // null for a client's end
    std::atomic<bool> connected{false};    // changed under ServedName::namesMutex() for a server's end
    std::atomic<bool> closed{false};       // the same
    std::atomic<bool> accepting{false};    // a client is being taken from the queue, or was
    std::atomic<bool> starved{false};      // an accept found no descriptors left, and none has succeeded since
    int owner = 0;                         // process id
    ReaderPace pace;                       // of the peer; only for the thread that writes
    int writeTimeoutMs = WRITE_TIMEOUT_MS;

    // A wait for input, which another thread may end without closing. The event is signalled for that only while such
    // a wait is running, and is reset when it ends: no other call ever finds it so.
    std::mutex wakeMutex;  // guards the next two
    bool woken = false;
    bool awaitingInput = false;
    bool endAwaited = false;  // the end came during such a wait; for the thread that reads

    /// Whether this process made it: a forked child inherits what it stands for, but not the right to end or to serve
    /// it.
    bool isOwn() const;

    /// Marks the object closed, lets the peer see the end, and wakes every thread that waits on it. In a forked child
    /// it does nothing: a shutdown there would end the parent's connection.
    void close();
};

/// The handles of this process. Values count up and are never used again, so a stale one can never reach a stranger.
class HandleTable {
  public:
    static HandleTable& instance();

    /// Enters the object. Its event handle is eventHandleOf(the result).
    NativeHandle add(std::shared_ptr<PipeObject> object);
    /// Null for a stale or invalid handle.
    std::shared_ptr<PipeObject> find(NativeHandle handle);
    std::shared_ptr<PipeObject> remove(NativeHandle handle);

    static NativeHandle eventHandleOf(NativeHandle pipeHandle) { return pipeHandle + 1; }

  private:
    HandleTable();
    ~HandleTable() = delete;
    static void unlockAll();
    struct State;
    State* const state_;
};

}  // namespace Quovane::Internal::Qvtp
