#include "config/ParserModule.h"

namespace Quovane::Internal::Qvtp {

/// For programs that are linked with the library's parts: they lie anywhere in the build tree.
std::filesystem::path parserPath() {
    return QVTP_PARSER_FILE;
}

}  // namespace Quovane::Internal::Qvtp
