#include "cli/Terminal.h"

#include <unistd.h>

namespace qvtp::cli::Terminal {

/// They are passed on as they are.
std::vector<std::string> arguments(int argc, char** argv) {
    return {argv + (argc > 0 ? 1 : 0), argv + argc};
}

bool showsErrors() {
    return ::isatty(STDERR_FILENO) == 1;
}

void makeStreamsBinary() {}

std::FILE* openTemporaryFile() {
    return std::tmpfile();
}

}  // namespace qvtp::cli::Terminal
