#include "support/TemporaryFile.h"

namespace qvtp_test {

std::FILE* temporaryFile() {
    return std::tmpfile();
}

}  // namespace qvtp_test
