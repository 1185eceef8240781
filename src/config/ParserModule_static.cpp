#include "config/ParserModule.h"

// The parser of a static library, which is linked with the program.
extern "C" const Quovane::Internal::Qvtp::ParserFunctions* qvtpConfigParser1();

namespace Quovane::Internal::Qvtp {

std::filesystem::path parserPath() {
    return {};
}

ParserModule loadParser(const std::filesystem::path& /*path*/) {
    return {qvtpConfigParser1(), ""};
}

}  // namespace Quovane::Internal::Qvtp
