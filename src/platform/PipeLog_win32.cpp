#include "platform/PipeLog.h"

#include "logging/Log.h"

// The spelling of every line is part of the interface: log readers match these texts.
namespace Quovane::Internal::Qvtp::PipeLog {

void writeWasAborted() {
    logInfo("WriteFile aborted.");
}

void writeTookNothing() {
    logDebug("WriteFile succeeded but wrote no bytes.");
}

void pendingWriteTookNothing() {
    logDebug("writePipe: woke up without completing I/O");
}

}  // namespace Quovane::Internal::Qvtp::PipeLog
