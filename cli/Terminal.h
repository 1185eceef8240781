#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

/// What the program asks of the system.
namespace qvtp::cli::Terminal {

/// What the program was called with, without its own name, in UTF-8.
std::vector<std::string> arguments(int argc, char** argv);
/// Gives the standard descriptors that are closed a place in which nothing can be read or written, so that no pipe and
/// no file gets their numbers. First of all calls.
void takeClosedDescriptors();
/// Whether a person looks at standard error.
bool showsErrors();
/// Leaves the bytes of standard input and output as they are, where the system would change line ends.
void makeStreamsBinary();
/// Whether this user may write to a file or into a directory that is there. Nothing is opened.
bool mayWrite(const std::filesystem::path& path);
/// A file to write and then read, which goes when it is closed; null if there can be none.
std::FILE* openTemporaryFile();

}  // namespace qvtp::cli::Terminal
