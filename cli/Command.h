#pragma once

#include "cli/ExitCode.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>

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
std::unique_ptr<Command> makeCompletion();

/// Seconds of the command line as milliseconds. 0 stays 0, which is without limit; everything else is 1 at least.
inline Milliseconds millisecondsOf(double seconds) {
    const auto time = std::chrono::duration_cast<Milliseconds>(std::chrono::duration<double>(seconds));
    return seconds > 0 && time.count() == 0 ? Milliseconds(1) : time;
}

}  // namespace qvtp::cli
