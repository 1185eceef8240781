#pragma once

#include <cstdio>

namespace qvtp_test {

/// A new file for reading and writing, in binary, that goes with its closing.
std::FILE* temporaryFile();

}  // namespace qvtp_test
