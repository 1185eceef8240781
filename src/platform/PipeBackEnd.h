#pragma once

#include "platform/PipePlatform.h"
#include "platform/ServerPipePlatform.h"

#include <cstddef>
#include <memory>
#include <string>

namespace Quovane::Internal::Qvtp {

/// What a handle stands for. Each system has its own.
class PipeObject;

/// The pipes of this process by handle. A stale handle reaches nothing.
class OpenHandles {
  public:
    /// A call begins: its object, null for a stale or invalid handle. leave() ends what this began.
    virtual std::shared_ptr<PipeObject> enter(NativeHandle pipeHandle) = 0;
    virtual void leave(PipeObject& object) = 0;
    /// Makes the handle stale and closes its object. Takes no memory.
    virtual void close(NativeHandle pipeHandle) = 0;

  protected:
    ~OpenHandles() = default;
};

/// What is different on each system. The routines of PipePlatform.h and ServerPipePlatform.h are written once over
/// these functions. They return what the routine of that name returns, for an object that a running call has entered,
/// and log what happens to the operation. connect, createInstance and accept may throw std::bad_alloc, and the routine
/// reports it; the others report a lack of memory themselves where they take any.
namespace BackEnd {

/// How long an accept takes to fail for a reason that lasts, so that its caller's loop does not spin.
inline constexpr int ACCEPT_PAUSE_MS = 100;

OpenHandles& handles();

/// Both handles are invalid before. A result that is a failure leaves a pipe handle only where just the event could not
/// be made.
int connect(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
            NativeHandle& eventHandle);
/// The same. `sibling` may be stale or invalid.
int createInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable, bool first,
                   NativeHandle& pipeHandle, NativeHandle& eventHandle);

int read(PipeObject& object, char* buffer, std::size_t length, int timeoutMs);
int write(PipeObject& object, const char* data, std::size_t length);
int writeBoth(PipeObject& object, const char* first, std::size_t firstLength, const char* second,
              std::size_t secondLength);
int writeSome(PipeObject& object, const char* first, std::size_t firstLength, const char* second,
              std::size_t secondLength, std::size_t& written);
int takeInput(PipeObject& object, char* buffer, std::size_t length, int timeoutMs, bool wakeable, int& taken);
void wake(PipeObject& object);
std::size_t available(PipeObject& object);
std::size_t peek(PipeObject& object, char* buffer, std::size_t length);
void endReading(PipeObject& object);
bool peerHasClosed(PipeObject& object);
PeerIds peer(PipeObject& object);
int accept(PipeObject& object, int timeoutMs);
bool hasClient(PipeObject& object);

}  // namespace BackEnd

/// One running call on a pipe. False for a stale or invalid handle.
class PipeCall {
  public:
    explicit PipeCall(NativeHandle pipeHandle) : object_(BackEnd::handles().enter(pipeHandle)) {}
    ~PipeCall() {
        if (object_ != nullptr) BackEnd::handles().leave(*object_);
    }
    PipeCall(const PipeCall&) = delete;
    PipeCall& operator=(const PipeCall&) = delete;

    explicit operator bool() const { return object_ != nullptr; }
    PipeObject& object() const { return *object_; }

  private:
    const std::shared_ptr<PipeObject> object_;
};

}  // namespace Quovane::Internal::Qvtp
