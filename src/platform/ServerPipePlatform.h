#pragma once

#include "platform/PipePlatform.h"

#include <string>

/// The server's part of the contract. What PipePlatform.h says about handles, threads, closing, the last error and
/// memory is true here too.
namespace Quovane::Internal::Qvtp {

/// Results of platformAccept.
namespace AcceptResult {
inline constexpr int CONNECTED = 0;
inline constexpr int TIMED_OUT = 1;
inline constexpr int WAIT_ERROR = 2;
inline constexpr int CONNECT_ERROR = 3;
inline constexpr int ABORTED = -4;
}  // namespace AcceptResult

/// Creates an instance of the pipe that waits for a client. `first`: this is to be the first instance of the name. The
/// directions are the server's own: what it reads, clients write. Returns 0 or the system's error number:
/// - The name is served, by anybody, and this is to be its first instance: 5.
/// - The name is served with another direction: 5.
/// - Memory runs out: 8.
/// A failure has its line at ERROR. Both handles are invalid then, unless just the event could not be made: then the
/// pipe handle has to be closed.
int platformCreateInstance(const std::string& path, bool readable, bool writable, bool first, NativeHandle& pipeHandle,
                           NativeHandle& eventHandle);

/// Creates one more instance of the name that `sibling` belongs to, an instance or the server's end of a connection.
/// Results are those of platformCreateInstance:
/// - The sibling lives: no look-up of the name, whatever the environment says now, and no descriptor that an accept has
///   not set aside.
/// - The sibling is stale, or names are the system's: as platformCreateInstance does with the path.
int platformCreateNextInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable,
                               NativeHandle& pipeHandle, NativeHandle& eventHandle);

/// Waits for a client on the instance. `timeoutMs`: 0 waits without limit. Returns an AcceptResult:
/// - A client is there already, comes later, or has come and gone: CONNECTED. The two handles are the server's end of
///   the connection from now on, and what the client wrote is there.
/// - Time-out: TIMED_OUT. The instance waits on, and the next accept goes on with it.
/// - A close while it waits: ABORTED.
/// - It fails for a reason that lasts: CONNECT_ERROR, ERROR "Connect error: ...". It returns after 100 ms, or at a
///   close, so that its caller's loop does not spin.
/// - The handle is stale: CONNECT_ERROR at once, ERROR "... 6".
/// - The wait itself fails: WAIT_ERROR.
/// Where names are files, and they are removed meanwhile or were before, it makes them anew and waits on. There is one
/// line for each removal, at ERROR.
int platformAccept(NativeHandle pipeHandle, NativeHandle eventHandle, int timeoutMs);

/// Whether a client has connected to the waiting instance and waits to be accepted. On Windows always false: there the
/// connection itself ends the accept.
bool platformHasClient(NativeHandle pipeHandle);

/// Like platformClose, for a waiting instance. It differs in its log line.
void platformCloseServer(NativeHandle pipeHandle, NativeHandle eventHandle);

}  // namespace Quovane::Internal::Qvtp
