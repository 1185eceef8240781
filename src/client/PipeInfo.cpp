#include "client/PipeInfo.h"

#include "common/System.h"
#include "logging/Log.h"

namespace Quovane::Internal::Qvtp {

namespace {

constexpr std::streamsize BUFFER_SIZE = 4096;

}  // namespace

PipeInfo::PipeInfo(const std::string& poolKey, const std::string& bindingName)
    : key(poolKey), binding(bindingName), processId(System::currentProcessId()) {}

PipeInfo::~PipeInfo() {
    if (pipe == nullptr) return;
    logDebug([&] { return "Closing QvPipe " + binding; });
    pipe->close();
    pipe.reset();  // before the buffers that its streams use
}

void PipeInfo::installBuffers(bool readable, bool writable) {
    if (readable) {
        inputBuffer_.reset(new char[BUFFER_SIZE]);
        pipe->getInputStream()->rdbuf()->pubsetbuf(inputBuffer_.get(), BUFFER_SIZE);
    }
    if (writable) {
        outputBuffer_.reset(new char[BUFFER_SIZE]);
        pipe->getOutputStream()->rdbuf()->pubsetbuf(outputBuffer_.get(), BUFFER_SIZE);
    }
}

}  // namespace Quovane::Internal::Qvtp
