#include "config/ParserModule.h"

namespace Quovane::Internal::Qvtp {

/// Programs that are linked with the library's parts lie anywhere in the build tree.
std::filesystem::path parserPath() {
    return QVTP_PARSER_FILE;
}

}  // namespace Quovane::Internal::Qvtp
