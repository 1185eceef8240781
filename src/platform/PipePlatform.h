#pragma once

#include <qvtp/platform/NativeHandle.h>

#include <cstddef>
#include <cstdint>
#include <string>

/// The contract between the pipe classes and the operating system. The routines are written once, over what each system
/// has of its own (PipeBackEnd.h). The contract test checks them, and every back end passes it. docs/porting.md says
/// what differs.
///
/// Results: the routines return the numbers named here. They log what happened and throw nothing. "At once" means
/// without waiting for a time-out. Numbers in log lines, such as "GLE=2", are those of Windows on every system.
///
/// Handles: a pipe has two, its own and that of its event. The event is what a named pipe of Windows has: each
/// operation signals it, and the pipe's owner keeps both. Linux derives it from the pipe handle. The signatures are the
/// same on both, and only the log lines of a close use what is passed. A handle stays what it was after its close: it
/// is stale then, and never reaches a pipe that was opened later.
///
/// Stale and invalid handles: a routine fails, with error 6 in its line if it has one. A close has no effect.
///
/// Threads: on one handle, one thread reads or waits for input, one writes, one accepts. They may be different threads
/// at the same time. platformWake, platformHasClient and a close are for any thread at any time. The rest is for the
/// thread that reads.
///
/// Closing: any thread may close, at any time, also while calls run. Each of these ends as ABORTED. The system's own
/// handles are released when the last call has left; on Windows the close waits for that, half a second at most. A call
/// that begins after the close finds a stale handle. Of two closes of one handle, the second has no effect.
///
/// Last error: back ends judge results by errno or GetLastError. So no log call changes it. Callers judge by the
/// returned number alone.
///
/// Memory: running out of it is a failure like any other, with error 8 in its line. Nothing is left over. A close
/// needs none.
namespace Quovane::Internal::Qvtp {

using Quovane::Io::INVALID_NATIVE_HANDLE;
using Quovane::Io::NativeHandle;

/// What stands before the bare name in a pipe's path: the local machine's pipe namespace.
inline constexpr char PIPE_PATH_PREFIX[] = R"(\\.\pipe\)";

/// Results of platformConnect. Any other value is the system's error number for an event that could not be made: the
/// pipe handle is valid then and has to be closed.
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

/// Results of platformWrite and platformWriteSome.
namespace WriteResult {
inline constexpr int WRITTEN = 0;
inline constexpr int FAILED = 4;
inline constexpr int TIMED_OUT = 5;
inline constexpr int BROKEN = 10;
inline constexpr int ABORTED = -4;
}  // namespace WriteResult

/// Results of platformTakeInput.
namespace InputResult {
inline constexpr int INPUT = 0;
inline constexpr int WOKEN = 1;
inline constexpr int TIMED_OUT = -2;
inline constexpr int FAILED = -3;
inline constexpr int ABORTED = -4;
}  // namespace InputResult

/// How long a write waits for the peer to take bytes.
inline constexpr int WRITE_TIMEOUT_MS = 10000;

/// The largest block to hand to platformWrite at once: any, where the time-out of a write is for each step of its
/// progress; one area of a stream, where it is for the whole block.
std::size_t platformBlockSize();

/// Opens the client end of the pipe. `timeoutMs`: how long to wait for a free instance, 0 without limit. Both handles
/// are invalid unless they were opened. Returns a ConnectResult:
/// - An instance waits: CONNECTED, before the server accepts.
/// - Every instance is taken: it waits for the next one, then TIMED_OUT. Also if the server goes meanwhile.
/// - Nobody serves the name: CANNOT_OPEN at once, ERROR "... GLE=2".
/// - The client wants a direction that the server does not have: ACCESS_DENIED, no line.
/// - Memory runs out: CANNOT_OPEN, ERROR "... GLE=8".
int platformConnect(const std::string& path, bool readable, bool writable, int timeoutMs, NativeHandle& pipeHandle,
                    NativeHandle& eventHandle);

/// Reads at most `length` bytes as soon as there are any. `timeoutMs`: 0 waits without limit. Returns the count or a
/// ReadResult:
/// - Bytes are there, or come: their count. What is more than `length` stays for the next read.
/// - `length` is 0: it waits until bytes are there, takes none, and returns 0.
/// - The peer closes while the read waits: 0.
/// - The peer had closed before and left nothing: FAILED, WARN "... 109".
/// - Time-out: TIMED_OUT. Bytes that come later are there for the next read.
/// - A close while it waits: ABORTED, no line.
/// - The handle is stale, or does not read: FAILED at once, WARN "... 6" or "... 5".
int platformRead(NativeHandle pipeHandle, NativeHandle eventHandle, char* buffer, int length, int timeoutMs);

/// Writes all `length` bytes. Returns a WriteResult:
/// - `length` is 0 or less: WRITTEN, and nothing happens.
/// - 65536 bytes, and nobody reads: WRITTEN at once.
/// - Much more, and nobody reads: TIMED_OUT after WRITE_TIMEOUT_MS. A part may arrive.
/// - The peer has closed, or closes while the write waits: BROKEN.
/// - A close while it waits: ABORTED.
/// - The handle is stale, or does not write: FAILED at once, ERROR "... 6" or "... 5".
int platformWrite(NativeHandle pipeHandle, NativeHandle eventHandle, const char* data, int length);

/// Writes the beginning of two blocks that follow each other. Like platformWrite, but:
/// - WRITTEN means at least one byte, as many as one call of the system takes. `written` receives how many.
///   platformWrite is for the rest.
/// - Both lengths are 0: WRITTEN, and nothing happens.
/// On Linux a small message leaves as a whole or not at all: up to 32 KiB.
int platformWriteSome(NativeHandle pipeHandle, NativeHandle eventHandle, const char* first, std::size_t firstLength,
                      const char* second, std::size_t secondLength, std::size_t& written);

/// Writes all of two blocks that follow each other. Otherwise like platformWrite.
int platformWriteBoth(NativeHandle pipeHandle, NativeHandle eventHandle, const char* first, std::size_t firstLength,
                      const char* second, std::size_t secondLength);

/// Waits until a read would not wait, and takes what has come: at most `length` bytes, `taken` receives how many. It
/// logs nothing. `timeoutMs`: 0 waits without limit. `wakeable`: false where platformWake need not end this wait. That
/// may cost less; a close ends it all the same. Returns an InputResult:
/// - Bytes are there, or come: INPUT. With `length` 0, and on a system that takes nothing, `taken` is 0, and the next
///   read gives them.
/// - The peer closes: INPUT with `taken` 0. The next read finds it as if it had waited itself: an end that came during
///   the wait is a count of 0.
/// - platformWake, also before the wait began: WOKEN. On Linux, where descriptors for the event ran out: WOKEN from
///   time to time, and a wake during a wait of 20 ms or less may be lost.
/// - Time-out: TIMED_OUT.
/// - A close while it waits: ABORTED.
/// - The handle is stale: FAILED. The same for one that does not read, or INPUT where only the read finds that out.
/// - Memory runs out: INPUT. The read reports it.
int platformTakeInput(NativeHandle pipeHandle, NativeHandle eventHandle, char* buffer, int length, int timeoutMs,
                      bool wakeable, int& taken);

/// Ends the running wait for input of the handle with WOKEN, or else the next one. No other call of the handle notices.
/// A wait that need not be wakeable may swallow it.
void platformWake(NativeHandle pipeHandle);

/// How many bytes a read would find without waiting. 0 also at the end, and for a handle that cannot be read.
std::size_t platformAvailable(NativeHandle pipeHandle);

/// Copies at most `length` of these bytes, the first ones, and leaves them there. Returns how many.
std::size_t platformPeek(NativeHandle pipeHandle, char* buffer, std::size_t length);

/// From now on the peer's writes fail as broken. What it wrote before can still be read, and what is written here still
/// arrives. On Windows a pipe has no half: there the call has no effect.
void platformEndReading(NativeHandle pipeHandle);

/// Whether the peer has closed its end. True for a stale handle. On Windows the call may drop bytes that the peer left:
/// it is for a connection that nobody will read any more.
bool platformPeerHasClosed(NativeHandle pipeHandle);

/// Who a client is, as the system knows it. -1: it does not say.
struct PeerIds {
    std::int64_t processId = -1;
    std::int64_t userId = -1;
    std::int64_t groupId = -1;
};

/// Who has connected to the server's end of a connection. It logs nothing. What it says:
/// - Linux: process, effective user and group at the moment of the connect, also when the client has gone since.
/// - Windows: the process.
/// - The handle is stale: nothing.
PeerIds platformPeer(NativeHandle pipeHandle);

/// Closes both handles:
/// - Every running call of the handle ends as ABORTED.
/// - The peer reads what was written before, then finds the end.
/// - The handle is stale or invalid: nothing but the log line.
void platformClose(NativeHandle pipeHandle, NativeHandle eventHandle);

/// A handle in the form in which log lines print it: as the operating system knows it, where it does.
const void* printable(NativeHandle handle);

}  // namespace Quovane::Internal::Qvtp
