#include "message/HeaderBlock.h"

#include <qvtp/io/InterruptedException.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

using Quovane::Internal::Qvtp::HeaderBlock;
using Quovane::Soa::Common::Xml::Utf8String;

std::string written(const HeaderBlock& block) {
    std::string text;
    block.write(text, Utf8String());
    return text;
}

/// What a block writes that has read this text.
std::string readAndWritten(const std::string& text) {
    HeaderBlock block;
    std::istringstream in(text + "\r\n");
    block.read(in, Utf8String());
    return written(block);
}

/// What was written is read back to the same values. The first pass may still change those that only a peer can send:
/// line ends and NUL inside a value become blanks.
void checkRoundTrip(const HeaderBlock& block) {
    for (const std::string& name : block.getHeaderNames()) {
        if (name.empty() || name.find_first_of("\r\n") != std::string::npos) return;
    }
    const std::string settled = readAndWritten(written(block));
    if (readAndWritten(settled) != settled) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream in(std::string(data, data + size));
    HeaderBlock block;
    try {
        block.read(in, Utf8String());
        checkRoundTrip(block);
    } catch (Quovane::Io::InterruptedException&) {
    }
    return 0;
}
