#include "cli/Terminal.h"

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

namespace qvtp::cli::Terminal {

bool showsErrors() {
    return ::_isatty(2) != 0;
}

void makeStreamsBinary() {
    ::_setmode(0, _O_BINARY);
    ::_setmode(1, _O_BINARY);
}

}  // namespace qvtp::cli::Terminal
