#include "platform/Refusal_linux.h"

#include <qvtp/platform/PipeFacts.h>

#include "common/System.h"
#include "platform/PipeLog.h"

#include <new>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::PipeFacts;

namespace {

void logRefusal(const std::string& pipePath, bool mayMakeDirectory) try {
    const System::LastErrorGuard lastError;
    const PipeFacts facts = Quovane::Io::findPipeFacts(pipePath);
    const bool isRefused = facts.state == PipeFacts::State::BAD_DIRECTORY ||
                           (mayMakeDirectory && facts.state == PipeFacts::State::NO_DIRECTORY);
    if (isRefused) PipeLog::refused(facts.reason);
} catch (const std::bad_alloc&) {
    // The line is dropped, as every line is for which there is no memory.
}

}  // namespace

void Refusal::logOfClient(const std::string& pipePath) {
    logRefusal(pipePath, false);
}

void Refusal::logOfServer(const std::string& pipePath) {
    logRefusal(pipePath, true);
}

}  // namespace Quovane::Internal::Qvtp
