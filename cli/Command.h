#pragma once

#include "cli/ExitCode.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

namespace qvtp::cli {

/// One subcommand. It adds itself to the program's arguments; run() is called if the user asked for it.
class Command {
  public:
    virtual ~Command() = default;
    virtual CLI::App* addTo(CLI::App& program) = 0;
    /// Returns an ExitCode. What it throws is reported by main().
    virtual int run() = 0;
};

std::unique_ptr<Command> makeSend(bool isPost);
std::unique_ptr<Command> makeServe();
std::unique_ptr<Command> makeList();
std::unique_ptr<Command> makePing();
std::unique_ptr<Command> makeBench();
std::unique_ptr<Command> makeTrace();
std::unique_ptr<Command> makeConfig();
std::unique_ptr<Command> makeCompletion();

/// Whole lines for standard error, in one write: what several programs or threads say at once does not mix.
inline void say(const std::string& lines) {
    std::cerr << lines << std::flush;
}

/// Seconds of the command line as milliseconds, 0 to what an int can hold. 0 stays 0, which is without limit;
/// everything else is 1 at least.
inline Milliseconds millisecondsOf(double seconds) {
    constexpr double MOST = std::numeric_limits<int>::max();
    return Milliseconds(seconds > 0 ? static_cast<int>(std::clamp(seconds * 1000, 1.0, MOST)) : 0);
}

}  // namespace qvtp::cli
