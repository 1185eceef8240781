#include "config/ParserModule.h"

#include <windows.h>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr char INSIDE = 0;  // lies wherever the library lies

std::filesystem::path libraryFile() {
    HMODULE library = nullptr;
    const auto* const address = reinterpret_cast<const wchar_t*>(&INSIDE);
    constexpr DWORD BY_ADDRESS = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if (!::GetModuleHandleExW(BY_ADDRESS, address, &library)) return {};
    std::wstring file(MAX_PATH, L'\0');
    DWORD length = ::GetModuleFileNameW(library, file.data(), static_cast<DWORD>(file.size()));
    while (length == file.size()) {  // it is cut off where the memory ends
        file.resize(2 * file.size());
        length = ::GetModuleFileNameW(library, file.data(), static_cast<DWORD>(file.size()));
    }
    file.resize(length);
    return file;
}

}  // namespace

std::filesystem::path parserPath() {
    std::filesystem::path path = libraryFile();
    return path.empty() ? path : path.replace_filename(QVTP_PARSER_NAME);
}

}  // namespace Quovane::Internal::Qvtp
