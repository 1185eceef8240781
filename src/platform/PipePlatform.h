#pragma once

#include <qvtp/platform/NativeHandle.h>

#include <cstddef>
#include <string>

/// The contract between the pipe classes and the operating system, implemented once per system beside this file.
/// The routines return result codes and log; they throw nothing. Lack of memory is a failure like any other, with error
/// 8 in its line, and leaves nothing behind; closes need none. What each must do in every situation
/// is in docs/porting.md and in the contract test, which every back end passes.
namespace Quovane::Internal::Qvtp {

using Quovane::Io::INVALID_NATIVE_HANDLE;
using Quovane::Io::NativeHandle;

/// What stands before the bare name in a pipe's path: the local machine's pipe namespace.
inline constexpr char PIPE_PATH_PREFIX[] = R"(\\.\pipe\)";

/// Results of platformConnect; any other value is an operating-system error number.
namespace ConnectResult {
inline constexpr int CONNECTED = 0;
inline constexpr int TIMED_OUT = 1;
inline constexpr int CANNOT_OPEN = 3;
inline constexpr int ACCESS_DENIED = 11;
}  // namespace ConnectResult

/// Results of platformRead below 0; 0 and above are byte counts.
namespace ReadResult {
inline constexpr int TIMED_OUT = -2;
inline constexpr int FAILED = -3;
inline constexpr int ABORTED = -4;
}  // namespace ReadResult

namespace WriteResult {
inline constexpr int WRITTEN = 0;
inline constexpr int FAILED = 4;
inline constexpr int TIMED_OUT = 5;
inline constexpr int BROKEN = 10;
inline constexpr int ABORTED = -4;
}  // namespace WriteResult

/// Results of platformAwaitInput.
namespace InputResult {
inline constexpr int INPUT = 0;
inline constexpr int WOKEN = 1;
inline constexpr int TIMED_OUT = -2;
inline constexpr int FAILED = -3;
inline constexpr int ABORTED = -4;
}  // namespace InputResult

/// How long platformWrite waits for the peer to take bytes.
inline constexpr int WRITE_TIMEOUT_MS = 10000;

/// Opens the client end of the pipe. `timeoutMs`: how long to wait for a free instance, 0 without limit (a pipe that
/// does not exist fails at once). Both handles are invalid unless they were opened.
int platformConnect(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
                    NativeHandle& eventHandle);

/// Reads at most `length` bytes as soon as there are any. `timeoutMs`: 0 waits without limit. Returns the count (0: the
/// peer closed meanwhile) or a ReadResult.
int platformRead(NativeHandle pipeHandle, NativeHandle eventHandle, char* buffer, int length, int timeoutMs);

/// Writes all `length` bytes. Returns a WriteResult.
int platformWrite(NativeHandle pipeHandle, NativeHandle eventHandle, const char* data, int length);

/// Writes the beginning of two blocks that follow each other: at least one byte, as many as one call of the system
/// takes. `written` receives how many. The rest is for platformWrite. Returns a WriteResult; a length of 0 for both is
/// WRITTEN. On Linux a small message leaves as a whole or not at all: the kernel queues up to about 48 KiB in one
/// piece.
int platformWriteSome(NativeHandle pipeHandle, NativeHandle eventHandle, const char* first, std::size_t firstLength,
                      const char* second, std::size_t secondLength, std::size_t& written);

/// Waits until a read would not wait: bytes are there, or the peer has closed. It takes nothing and logs nothing, and
/// an end that comes while it waits is found by the next read as one that came while that read waited. For the thread
/// that reads. `timeoutMs`: 0 waits without limit. Returns an InputResult; FAILED for a handle that cannot be read.
int platformAwaitInput(NativeHandle pipeHandle, NativeHandle eventHandle, int timeoutMs);

/// Ends the running platformAwaitInput of the handle with WOKEN, or else the next one. From any thread. No other call
/// of the handle notices.
void platformWake(NativeHandle pipeHandle);

/// How many bytes a read would find without waiting. 0 also at the end, and for a handle that cannot be read.
std::size_t platformAvailable(NativeHandle pipeHandle);

/// From now on the peer's writes fail as broken. What it wrote before can still be read, and what is written here still
/// arrives. On Windows a pipe has no half: there the call has no effect.
void platformEndReading(NativeHandle pipeHandle);

/// Whether the peer has closed its end. On Windows the call may drop bytes that the peer left: it is for a connection
/// that nobody will read any more.
bool platformPeerHasClosed(NativeHandle pipeHandle);

/// Ends every pending operation of the handle, from any thread, and closes both handles. Invalid and stale handles are
/// allowed and have no effect but the log line.
void platformClose(NativeHandle pipeHandle, NativeHandle eventHandle);

/// A handle in the form in which log lines print it: as the operating system knows it, where it does.
const void* printable(NativeHandle handle);

}  // namespace Quovane::Internal::Qvtp
