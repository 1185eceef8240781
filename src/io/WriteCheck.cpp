#include "io/WriteCheck.h"

#include <qvtp/io/BrokenPipeException.h>
#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/QvPipeException.h>
#include <qvtp/io/TimeoutException.h>

#include "platform/PipePlatform.h"

namespace Quovane::Internal::Qvtp {

using Quovane::Io::BrokenPipeException;
using Quovane::Io::InterruptedException;
using Quovane::Io::QvPipeException;
using Quovane::Io::TimeoutException;

void checkWritten(int result) {
    switch (result) {
        case WriteResult::WRITTEN:
            return;
        case WriteResult::BROKEN:
            throw BrokenPipeException("Pipe was closed at other end.");
        case WriteResult::ABORTED:
            throw InterruptedException("Pipe write aborted.");
        case WriteResult::FAILED:
            throw QvPipeException("Pipe write failed");
        case WriteResult::TIMED_OUT:
            throw TimeoutException("Pipe write timed out");
        default:
            throw QvPipeException("Unexpected writePipe failure.");
    }
}

}  // namespace Quovane::Internal::Qvtp
