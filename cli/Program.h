#pragma once

#include <qvtp/easy.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

namespace qvtp::cli {

class ShellCommand;

/// What a program that served one request came to.
struct ProgramResult {
    int exitCode = 0;
    std::string output;
};

/// The programs that serve requests, several at once, from any thread.
class Programs {
  public:
    /// Runs a command line of the shell. The request's body is its standard input, QVTP_METHOD, QVTP_RESOURCE,
    /// QVTP_PEER_PID and QVTP_HEADER_<NAME> are in its environment. What it prints is the result's output; standard
    /// error is this program's.
    ProgramResult run(const std::string& commandLine, const Request& request);
    /// Asks those that run to end, with all that is still in their group, makes them after a while, and starts no more.
    /// Windows: only the last.
    void end();

  private:
    class Running;

    std::mutex mutex_;                  // guards what follows, and that no process is asked to end that is not ours
    std::condition_variable hasEnded_;  // one of those that ran
    std::set<ShellCommand*> running_;   // not owned
    bool isEnding_ = false;
};

}  // namespace qvtp::cli
