#pragma once

#include <map>
#include <memory>
#include <string>

namespace qvtp::cli {

/// A command line of the system's shell that runs, with pipes for its standard input and output. Each function may run
/// on a thread of its own, but for exitCode(), which is the last.
class ShellCommand {
  public:
    using Variables = std::map<std::string, std::string>;

    /// `variables` are in its environment, besides those of this program. Throws what derives from std::exception if it
    /// cannot be started.
    ShellCommand(const std::string& commandLine, const Variables& variables);
    ShellCommand(const ShellCommand&) = delete;
    ShellCommand& operator=(const ShellCommand&) = delete;
    /// What still runs is ended, where end() can do that.
    ~ShellCommand();

    /// Writes its whole input. A command need not read it to its end.
    void feed(const std::string& input);
    /// Until all who write to it have closed it.
    std::string readOutput();
    /// Returns when the command has ended; end() may still be called.
    void waitForEnd();
    int exitCode();
    /// Linux: asks the command to end, and all that it has started and that is still in its group, or makes them.
    /// Windows: does nothing.
    void end(bool isForced);

  private:
    struct State;
    const std::unique_ptr<State> state_;
};

}  // namespace qvtp::cli
