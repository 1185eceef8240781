#include "cli/Terminal.h"

#include <unistd.h>

namespace qvtp::cli::Terminal {

bool showsErrors() {
    return ::isatty(STDERR_FILENO) == 1;
}

void makeStreamsBinary() {}

}  // namespace qvtp::cli::Terminal
