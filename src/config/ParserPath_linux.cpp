#include "config/ParserModule.h"

#include <dlfcn.h>
#include <link.h>

#include <array>
#include <climits>
#include <cstddef>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr char INSIDE = 0;  // lies wherever the library lies

/// The directory from which the library was loaded, as the loader noted it at that time. The path of a library may be
/// relative, and the current directory another one by now.
std::filesystem::path libraryDirectory() {
    Dl_info info{};
    void* library = nullptr;
    if (::dladdr1(&INSIDE, &info, &library, RTLD_DL_LINKMAP) == 0) return {};
    std::array<char, std::size_t{2} * PATH_MAX> directory{};  // the current directory of that time and a relative path
    return ::dlinfo(library, RTLD_DI_ORIGIN, directory.data()) == 0 ? directory.data() : "";
}

}  // namespace

std::filesystem::path parserPath() {
    const std::filesystem::path directory = libraryDirectory();
    return directory.empty() ? directory : directory / "qvtp" / QVTP_PARSER_NAME;
}

}  // namespace Quovane::Internal::Qvtp
