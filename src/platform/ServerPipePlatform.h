#pragma once

#include "platform/PipePlatform.h"

#include <string>

/// The server's part of the contract in PipePlatform.h.
namespace Quovane::Internal::Qvtp {

namespace AcceptResult {
inline constexpr int CONNECTED = 0;
inline constexpr int TIMED_OUT = 1;
inline constexpr int WAIT_ERROR = 2;
inline constexpr int CONNECT_ERROR = 3;
inline constexpr int ABORTED = -4;
}  // namespace AcceptResult

/// Creates an instance of the pipe that waits for a client. `first`: fail if anybody serves the name already. The
/// flags are the server's own: what it reads, clients write. Returns 0 or the operating system's error number.
int platformCreateInstance(const std::string& path, bool readable, bool writable, bool first, NativeHandle& pipeHandle,
                           NativeHandle& eventHandle);

/// Creates one more instance of the name that `sibling` belongs to, an instance or the server's end of a connection.
/// Where a name has to be looked up, that was done once: what the environment says now plays no part, and it takes no
/// descriptor that an accept has not set aside. Without a living sibling, and where names are the system's, it is
/// platformCreateInstance with the path.
int platformCreateNextInstance(NativeHandle sibling, const std::string& path, bool readable, bool writable,
                               NativeHandle& pipeHandle, NativeHandle& eventHandle);

/// Waits for a client on the instance. `timeoutMs`: 0 waits without limit; after a time-out the instance waits on.
/// On success the two handles are the server's end of the connection. Returns an AcceptResult.
int platformAccept(NativeHandle pipeHandle, NativeHandle eventHandle, int timeoutMs);

/// Whether a client has connected to the waiting instance and waits to be accepted. On Windows always false: there the
/// connection itself ends the accept.
bool platformHasClient(NativeHandle pipeHandle);

/// Like platformClose, for a waiting instance; it differs in its log line.
void platformCloseServer(NativeHandle pipeHandle, NativeHandle eventHandle);

}  // namespace Quovane::Internal::Qvtp
