#include "platform/PipeLog.h"

#include "logging/Log.h"

// The spelling of every line is part of the interface: log readers match these texts.
namespace Quovane::Internal::Qvtp::PipeLog {

void refused(const std::string& reason) {
    logError([&] { return "Pipe refused. " + reason; });
}

void waitsForInstance() {
    logDebug("Waiting for named pipe.");
}

void connectTimedOut(const std::string& path, int timeoutMs) {
    const std::uint32_t limit = timeoutMs == 0 ? UINT32_MAX : static_cast<std::uint32_t>(timeoutMs);
    logDebug([&] { return text("Could not open pipe ", path, " after ", limit, " milliseconds."); });
}

void connectFailed(Number error) {
    logError([&] { return text("Could not open pipe. GLE=", error); });
}

void connected(const std::string& path, const void* pipe, Number lastError) {
    logDebug([&] { return text("CreateFile - ", path, " handle=", pipe, " GetLastError=", lastError); });
}

void eventFailed(Number error) {
    logError([&] { return text("CreateEvent failed: ", error); });
}

void readTimedOut() {
    logDebug("Read timed out.");
}

void readRefused(Number error) {
    logWarn([&] { return text("ReadFile error: ", error); });
}

void readFailed(Number error) {
    logError([&] { return text("ReadFile failed: ", error); });
}

void writeTimedOut() {
    logDebug("Write timed out.");
}

void writeRefused(Number error) {
    logError([&] { return text("WriteFile error: ", error); });
}

void writeFailed(Number error) {
    logError([&] { return text("WriteFile failed: ", error); });
}

void writeFoundBrokenPipe() {
    logDebug("WriteFile broken pipe");
}

void createFailed(Number error) {
    logError([&] { return text("CreateNamedPipe failed: ", error); });
}

void instanceCreated(NativeHandle pipeHandle, NativeHandle eventHandle) {
    logDebug([&] { return text("bindPipe: handle=", printable(pipeHandle), " event=", printable(eventHandle)); });
}

void nameRemoved(const std::string& path, Number error) {
    logError([&] {
        const std::string removed = text("Removed under the server: ", path, ". ");
        return error == 0 ? removed + "The name was taken anew."
                          : text(removed, "The name cannot be taken anew: ", error);
    });
}

void nameTakenAgain(const std::string& path) {
    logInfo([&] { return text("The name was taken anew: ", path); });
}

void acceptCalled() {
    logDebug("Calling ConnectNamedPipe.");
}

void acceptBegun(Number error) {
    logDebug([&] { return text("ServerQvPipe_acceptPipe error = ", error); });
}

void acceptWaited(Number status) {
    logDebug([&] { return text("ServerQvPipe_acceptPipe WaitForSingleObject status = ", status); });
}

void acceptCompleted(Number error) {
    logDebug([&] { return text("GetOverlappedResult - GetLastError=", error); });
}

void acceptFailed(Number error) {
    logError([&] { return text("Connect error: ", error); });
}

void acceptRefused(Number error) {
    acceptBegun(error);
    acceptFailed(error);
}

void acceptReturns(Number result) {
    logDebug([&] { return text("ServerQvPipe_acceptPipe retval = ", result); });
}

void pipeCloses(NativeHandle pipeHandle, NativeHandle eventHandle) {
    logDebug([&] { return text("Close Handles: handle=", printable(pipeHandle), "; event=", printable(eventHandle)); });
}

void instanceCloses(NativeHandle pipeHandle, NativeHandle eventHandle) {
    // A blank where the other close has a semicolon.
    logDebug([&] { return text("Close Handles: handle=", printable(pipeHandle), " event= ", printable(eventHandle)); });
}

}  // namespace Quovane::Internal::Qvtp::PipeLog
