#include "config/ParserModule.h"

#include <dlfcn.h>
#include <link.h>

#include <array>
#include <climits>
#include <cstddef>
#include <filesystem>
#include <system_error>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr char INSIDE = 0;  // lies wherever the library lies

/// The file of the library as it was loaded. The directory is what the loader noted at that time: the path of a library
/// may be relative, and the current directory another one by now.
std::filesystem::path libraryFile() {
    Dl_info info{};
    void* library = nullptr;
    if (::dladdr1(&INSIDE, &info, &library, RTLD_DL_LINKMAP) == 0) return {};
    std::array<char, std::size_t{2} * PATH_MAX> directory{};  // the current directory of that time and a relative path
    if (::dlinfo(library, RTLD_DI_ORIGIN, directory.data()) != 0) return {};
    const std::filesystem::path name(static_cast<const link_map*>(library)->l_name);
    return std::filesystem::path(directory.data()) / name.filename();
}

std::filesystem::path moduleBeside(const std::filesystem::path& library) {
    return library.parent_path() / "qvtp" / QVTP_PARSER_NAME;
}

}  // namespace

std::filesystem::path parserPath() {
    const std::filesystem::path library = libraryFile();
    if (library.empty()) return {};
    std::filesystem::path module = moduleBeside(library);
    std::error_code error;
    if (std::filesystem::exists(module, error)) return module;
    // The library may have been loaded through a link from another directory.
    const std::filesystem::path target = std::filesystem::canonical(library, error);
    if (!error && std::filesystem::exists(moduleBeside(target), error)) return moduleBeside(target);
    return module;
}

}  // namespace Quovane::Internal::Qvtp
