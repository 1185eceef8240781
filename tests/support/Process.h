#pragma once

#include <memory>
#include <string>
#include <vector>

namespace qvtp_test {

/// A program that runs beside the test. One that still runs at its end is killed.
class Process {
  public:
    /// Starts a program (a path, without an ending such as ".exe"). What it prints goes to the file.
    Process(const std::string& program, const std::vector<std::string>& arguments, const std::string& outputFile);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Waits for the end and returns the exit code; -1 if it was killed.
    int wait();
    /// Ends it at once, without a chance to clean up.
    void kill();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

void setEnvironment(const std::string& name, const std::string& value);
void unsetEnvironment(const std::string& name);

/// Makes a directory the current one, also for programs that are started.
void changeDirectory(const std::string& path);

/// The whole of a text file, with line ends as "\n"; empty if there is none.
std::string contentsOfFile(const std::string& path);
void writeFile(const std::string& path, const std::string& contents);

/// A new directory of this test's own, below the current one.
std::string makeTestDirectory();

}  // namespace qvtp_test
