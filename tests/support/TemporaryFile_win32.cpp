#include "support/TemporaryFile.h"

#include <windows.h>

#include <string>

namespace qvtp_test {

std::FILE* temporaryFile() {
    // The runtime's tmpfile wants to write to the root of the drive, where ordinary users may not.
    char directory[MAX_PATH + 1];
    char file[MAX_PATH + 1];
    if (::GetTempPathA(sizeof directory, directory) == 0) return nullptr;
    // Wine refuses a name now and then, when another process is just deleting the file of that name.
    for (int tries = 0; tries < 10; ++tries) {
        if (::GetTempFileNameA(directory, "qvt", 0, file) == 0) continue;
        std::FILE* const opened = std::fopen(file, "w+bTD");  // temporary, and deleted when it is closed
        if (opened != nullptr) return opened;
    }
    return nullptr;
}

}  // namespace qvtp_test
