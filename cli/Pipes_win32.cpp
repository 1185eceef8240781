#include "cli/Pipes.h"

#include <windows.h>

#include <algorithm>

namespace qvtp::cli {

/// The system lists the pipes of all users and programs, and does not say who serves them.
std::vector<PipeEntry> findPipes() {
    std::vector<PipeEntry> pipes;
    WIN32_FIND_DATAA found;
    const HANDLE search = ::FindFirstFileA("\\\\.\\pipe\\*", &found);
    if (search == INVALID_HANDLE_VALUE) return pipes;
    do {
        PipeEntry pipe;
        pipe.name = found.cFileName;
        pipe.path = "\\\\.\\pipe\\" + pipe.name;
        pipe.isLive = true;
        pipes.push_back(pipe);
    } while (::FindNextFileA(search, &found) != 0);
    ::FindClose(search);
    std::sort(pipes.begin(), pipes.end(), [](const PipeEntry& a, const PipeEntry& b) { return a.name < b.name; });
    return pipes;
}

}  // namespace qvtp::cli
