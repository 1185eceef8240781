#include "config/ParserModule.h"

#include <windows.h>

namespace Quovane::Internal::Qvtp {

namespace {

std::string lastFailure() {
    return "error " + std::to_string(::GetLastError());
}

/// What the module itself needs is looked for beside it and where the program lies; only then where it would be if the
/// library were linked with it.
HMODULE load(const std::filesystem::path& path) {
    constexpr DWORD SAFE_DIRECTORIES = LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS;
    const HMODULE module = ::LoadLibraryExW(path.c_str(), nullptr, SAFE_DIRECTORIES);
    return module != nullptr ? module : ::LoadLibraryExW(path.c_str(), nullptr, 0);
}

}  // namespace

ParserModule loadParser(const std::filesystem::path& path) {
    if (!path.is_absolute())
        return {nullptr, "the library's own path is not known"};  // a mere name would be searched for
    const HMODULE module = load(path);
    if (module == nullptr) return {nullptr, lastFailure()};
    // By way of a type that any function pointer may become: compilers warn of the direct way.
    const auto entry =
        reinterpret_cast<ParserEntry>(reinterpret_cast<void (*)()>(::GetProcAddress(module, PARSER_ENTRY)));
    if (entry == nullptr) return {nullptr, lastFailure()};
    return {entry(), ""};
}

}  // namespace Quovane::Internal::Qvtp
