#include <qvtp/platform/PipeFacts.h>

#include "common/System.h"
#include "common/Text.h"
#include "platform/PipePlatform.h"

#include <windows.h>

namespace Quovane::Io {

using namespace Quovane::Internal::Qvtp;
using State = PipeFacts::State;

namespace {

constexpr std::size_t MAX_PATH_LENGTH = 256;
constexpr DWORD SHORTEST_WAIT_MS = 1;  // 0 is the server's own choice

PipeFacts without(const std::string& path, DWORD error) {
    switch (error) {
        case ERROR_SEM_TIMEOUT:
            return {State::SERVED, path, {}};
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
            return {State::FREE, path, {}};
        case ERROR_INVALID_NAME:
        case ERROR_BAD_PATHNAME:
            return {State::BAD_NAME, path, "The system takes no pipe of this name."};
        default:
            return {State::UNKNOWN, path, text("The system refused to look at the pipe, with error ", error, ".")};
    }
}

}  // namespace

/// The wait for a free instance is the one question that opens none.
PipeFacts findPipeFacts(const std::string& pipeName) {
    const System::LastErrorGuard lastError;
    if (pipeName.empty()) return {State::BAD_NAME, pipeName, "A name is not empty."};
    const std::string path = PIPE_PATH_PREFIX + pipeName;
    if (path.size() > MAX_PATH_LENGTH) return {State::BAD_NAME, pipeName, "A name has at most 247 bytes."};
    if (::WaitNamedPipeA(path.c_str(), SHORTEST_WAIT_MS)) return {State::SERVED, path, {}};
    return without(path, ::GetLastError());
}

std::int64_t currentProcessId() {
    return System::currentProcessId();
}

}  // namespace Quovane::Io
