#pragma once

#include <qvtp/easy.h>

#include <string>

namespace qvtp::cli {

/// What a program that served one request came to.
struct ProgramResult {
    int exitCode = 0;
    std::string output;
};

/// Runs a command line of the shell. The request's body is its standard input, QVTP_METHOD, QVTP_RESOURCE,
/// QVTP_PEER_PID and QVTP_HEADER_<NAME> are in its environment. What it prints is the result's output; standard error
/// is this program's. From any thread, several at once.
ProgramResult runProgram(const std::string& commandLine, const Request& request);

}  // namespace qvtp::cli
