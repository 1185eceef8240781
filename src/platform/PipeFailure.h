#pragma once

#include "platform/PipeLog.h"
#include "platform/PipePlatform.h"

/// Failures for which the routines have no result of their own: each is logged, and yields the result of its routine.
/// "refuse": it failed at once. "fail": it failed after a wait, or after a part.
namespace Quovane::Internal::Qvtp::PipeFailure {

inline int refuseRead(PipeLog::Number error) {
    PipeLog::readRefused(error);
    return ReadResult::FAILED;
}

inline int failRead(PipeLog::Number error) {
    PipeLog::readFailed(error);
    return ReadResult::FAILED;
}

inline int refuseWrite(PipeLog::Number error) {
    PipeLog::writeRefused(error);
    return WriteResult::FAILED;
}

inline int failWrite(PipeLog::Number error) {
    PipeLog::writeFailed(error);
    return WriteResult::FAILED;
}

}  // namespace Quovane::Internal::Qvtp::PipeFailure
