#pragma once

#include "config/ParserFunctions.h"

#include <filesystem>
#include <string>

namespace Quovane::Internal::Qvtp {

struct ParserModule {
    const ParserFunctions* functions;  // not owned; null if the module could not be loaded
    std::string failure;               // the reason of the system, if it was not
};

/// The file of the module, beside the library: an absolute path whatever the current directory is and was. Nothing is
/// searched for, so nobody can put another module in its place who cannot replace the library too. Empty if the system
/// does not say where the library lies.
std::filesystem::path parserPath();

/// Loads the module into the process. It stays there to the end: an exception of it may live as long.
ParserModule loadParser(const std::filesystem::path& path);

}  // namespace Quovane::Internal::Qvtp
