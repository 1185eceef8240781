#pragma once

#include "platform/PipePlatform.h"

#include <cstdint>
#include <string>

/// Every log line of the pipe routines, one function for each event. The texts are the same on every system, so that
/// one log reader serves all. A line is composed only when its level is on, and the thread's last error stays as it
/// was.
namespace Quovane::Internal::Qvtp::PipeLog {

/// An error number, the status of a wait or a result. It holds those of every system, signed or not.
using Number = std::int64_t;

// ---- Connecting ----

/// `reason`: what is wrong with the files of a name, where they are, and what helps. Of connecting and of creating.
void refused(const std::string& reason);

void waitsForInstance();
/// `timeoutMs`: 0 is without limit, and printed with all bits set.
void connectTimedOut(const std::string& path, int timeoutMs);
void connectFailed(Number error);
/// `pipe`: as printable() gives it.
void connected(const std::string& path, const void* pipe, Number lastError);
/// The pipe is there, but no event for it.
void eventFailed(Number error);

// ---- Reading ----

void readTimedOut();
/// The read failed at once.
void readRefused(Number error);
/// The read failed after it had begun to wait.
void readFailed(Number error);

// ---- Writing ----

void writeTimedOut();
/// The write failed at once.
void writeRefused(Number error);
/// The write failed after it had begun to wait.
void writeFailed(Number error);
void writeFoundBrokenPipe();

// Of Windows alone, in PipeLog_win32.cpp: elsewhere no write ends like this.
void writeWasAborted();
void writeTookNothing();
void pendingWriteTookNothing();

// ---- Instances ----

void createFailed(Number error);
void instanceCreated(NativeHandle pipeHandle, NativeHandle eventHandle);

/// Files of a name were removed that this process serves. `error`: 0 if the name was taken anew at once.
void nameRemoved(const std::string& path, Number error);
/// The name could not be taken anew then, but now. `path`: of its socket.
void nameTakenAgain(const std::string& path);

// ---- Accepting ----

void acceptCalled();
/// What the system said at once, success or not.
void acceptBegun(Number error);
void acceptWaited(Number status);
/// What the system said after the wait.
void acceptCompleted(Number error);
void acceptFailed(Number error);
/// The handle means nothing: what the system would have said, and the failure.
void acceptRefused(Number error);
void acceptReturns(Number result);

// ---- Closing ----

void pipeCloses(NativeHandle pipeHandle, NativeHandle eventHandle);
void instanceCloses(NativeHandle pipeHandle, NativeHandle eventHandle);

}  // namespace Quovane::Internal::Qvtp::PipeLog
