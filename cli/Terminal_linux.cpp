#include "cli/Terminal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace qvtp::cli::Terminal {

/// They are passed on as they are.
std::vector<std::string> arguments(int argc, char** argv) {
    return {argv + (argc > 0 ? 1 : 0), argv + argc};
}

/// What is open for reading alone refuses what is printed, so the loss is noticed.
void takeClosedDescriptors() {
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const bool isClosed = ::fcntl(number, F_GETFD) == -1 && errno == EBADF;
        if (isClosed && ::open("/dev/null", O_RDONLY) != number) return;
    }
}

bool showsErrors() {
    return ::isatty(STDERR_FILENO) == 1;
}

void makeStreamsBinary() {}

bool mayWrite(const std::filesystem::path& path) {
    return ::access(path.c_str(), W_OK) == 0;
}

std::FILE* openTemporaryFile() {
    return std::tmpfile();
}

}  // namespace qvtp::cli::Terminal
