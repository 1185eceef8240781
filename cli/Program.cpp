#include "cli/Program.h"

#include "cli/Shell.h"

#include <chrono>
#include <future>
#include <memory>

namespace qvtp::cli {

namespace {

/// How long a program may take to end when it is asked to.
constexpr auto PATIENCE = std::chrono::seconds(2);

/// "Content-Type" as QVTP_HEADER_CONTENT_TYPE.
std::string variableOf(const std::string& header) {
    std::string name = "QVTP_HEADER_";
    for (const char c : header) {
        const bool isLower = c >= 'a' && c <= 'z';
        const bool isWord = isLower || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        name += !isWord ? '_' : isLower ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return name;
}

ShellCommand::Variables environmentOf(const Request& request) {
    ShellCommand::Variables variables;
    variables["QVTP_METHOD"] = request.method();
    variables["QVTP_RESOURCE"] = request.resource();
    variables["QVTP_PEER_PID"] = std::to_string(request.peer().processId);
    for (const auto& [name, value] : request.headers()) {
        std::string& all = variables[variableOf(name)];
        all += all.empty() ? value : "," + value;
    }
    return variables;
}

}  // namespace

/// A command from its start to its end.
class Programs::Running {
  public:
    Running(Programs& programs, const std::string& commandLine, const Request& request) : programs_(programs) {
        const std::lock_guard<std::mutex> guard(programs_.mutex_);
        if (programs_.isEnding_) throw Error(ErrorKind::closed, "The server is ending.");
        command_ = std::make_unique<ShellCommand>(commandLine, environmentOf(request));
        programs_.running_.insert(command_.get());
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() {
        const std::lock_guard<std::mutex> guard(programs_.mutex_);
        programs_.running_.erase(command_.get());
        command_.reset();
        programs_.hasEnded_.notify_all();
    }

    ShellCommand& command() { return *command_; }
    int exitCode() {
        command_->waitForEnd();
        const std::lock_guard<std::mutex> guard(programs_.mutex_);
        programs_.running_.erase(command_.get());  // its number may be another's from now on
        return command_->exitCode();
    }

  private:
    Programs& programs_;
    std::unique_ptr<ShellCommand> command_;
};

ProgramResult Programs::run(const std::string& commandLine, const Request& request) {
    Running running(*this, commandLine, request);
    const auto fed = std::async(std::launch::async, [&] { running.command().feed(request.body()); });
    ProgramResult result;
    try {
        result.output = running.command().readOutput();
    } catch (...) {
        running.command().end(true);  // it may wait for its reader, and keep the other thread waiting
        throw;
    }
    fed.wait();
    result.exitCode = running.exitCode();
    return result;
}

void Programs::end() {
    std::unique_lock<std::mutex> lock(mutex_);
    isEnding_ = true;
    for (ShellCommand* const command : running_) command->end(false);
    hasEnded_.wait_for(lock, PATIENCE, [this] { return running_.empty(); });
    for (ShellCommand* const command : running_) command->end(true);
}

}  // namespace qvtp::cli
