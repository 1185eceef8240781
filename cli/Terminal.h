#pragma once

/// What the program asks of the system.
namespace qvtp::cli::Terminal {

/// Whether a person looks at standard error.
bool showsErrors();
/// Leaves the bytes of standard input and output as they are, where the system would change line ends.
void makeStreamsBinary();

}  // namespace qvtp::cli::Terminal
