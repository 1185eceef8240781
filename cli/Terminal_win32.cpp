#include "cli/Terminal.h"

#include <windows.h>

#include <shellapi.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include <memory>

namespace qvtp::cli::Terminal {

namespace {

std::string utf8Of(const wchar_t* text) {
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), size, nullptr, nullptr);
    result.resize(result.size() - 1);  // without the zero
    return result;
}

}  // namespace

/// Those of main() are in the code page of the system, which does not have all characters.
std::vector<std::string> arguments(int, char**) {
    int count = 0;
    const std::unique_ptr<wchar_t*, decltype(&::LocalFree)> all(::CommandLineToArgvW(::GetCommandLineW(), &count),
                                                                &::LocalFree);
    std::vector<std::string> result;
    for (int i = 1; i < count; ++i) result.push_back(utf8Of(all.get()[i]));
    return result;
}

/// Handles of pipes have no such numbers.
void takeClosedDescriptors() {}

bool showsErrors() {
    return ::_isatty(2) != 0;
}

void makeStreamsBinary() {
    ::_setmode(0, _O_BINARY);
    ::_setmode(1, _O_BINARY);
}

bool mayWrite(const std::filesystem::path& path) {
    constexpr int TO_WRITE = 2;
    return ::_waccess(path.c_str(), TO_WRITE) == 0;
}

/// The C library's own way makes it in the root directory, where few may write.
std::FILE* openTemporaryFile() {
    wchar_t directory[MAX_PATH + 1], path[MAX_PATH + 1];
    if (::GetTempPathW(MAX_PATH + 1, directory) == 0) return nullptr;
    if (::GetTempFileNameW(directory, L"qvtp", 0, path) == 0) return nullptr;
    std::FILE* const file = ::_wfopen(path, L"w+bTD");
    if (file == nullptr) ::DeleteFileW(path);  // which is there since it has its name
    return file;
}

}  // namespace qvtp::cli::Terminal
