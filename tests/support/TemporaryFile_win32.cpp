#include "support/TemporaryFile.h"

#include <windows.h>

#include <string>

namespace qvtp_test {

std::FILE* temporaryFile() {
    // The runtime's tmpfile wants to write to the root of the drive, where ordinary users may not.
    char directory[MAX_PATH + 1];
    char file[MAX_PATH + 1];
    if (::GetTempPathA(sizeof directory, directory) == 0) return nullptr;
    if (::GetTempFileNameA(directory, "qvt", 0, file) == 0) return nullptr;
    return std::fopen(file, "w+bTD");  // temporary, and deleted when it is closed
}

}  // namespace qvtp_test
