#include "message/HeaderBlock.h"

#include <qvtp/io/InterruptedException.h>

#include "common/WireSyntax.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
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

/// Each name is there once, without regard to case. Two that differ in white space of a rare kind are two names, which
/// look alike without it.
void checkNames(const HeaderBlock& block, const std::string& text) {
    if (text.find_first_of("\v\f") != std::string::npos) return;
    std::set<std::string> seen;
    for (std::string name : block.getHeaderNames()) {
        std::transform(name.begin(), name.end(), name.begin(), Quovane::Internal::Qvtp::WireSyntax::upperCase);
        if (!seen.insert(name).second) std::abort();
    }
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
    const std::string text(data, data + size);
    std::istringstream in(text);
    HeaderBlock block;
    try {
        block.read(in, Utf8String());
        checkNames(block, text);
        checkRoundTrip(block);
    } catch (Quovane::Io::InterruptedException&) {
    }
    return 0;
}
