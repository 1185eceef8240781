#include "support/Process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace qvtp_test {

struct Process::State {
    pid_t pid = -1;
    bool ended = false;
    int exitCode = -1;
};

Process::Process(const std::string& program, const std::vector<std::string>& arguments, const std::string& outputFile)
    : state_(std::make_unique<State>()) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    state_->pid = ::fork();
    if (state_->pid < 0) throw std::runtime_error("fork failed");
    if (state_->pid > 0) return;
    const int output = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
}

Process::~Process() {
    kill();
    wait();
}

int Process::wait() {
    if (state_->ended) return state_->exitCode;
    int status = 0;
    ::waitpid(state_->pid, &status, 0);
    state_->ended = true;
    state_->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return state_->exitCode;
}

void Process::kill() {
    if (!state_->ended) ::kill(state_->pid, SIGKILL);
}

void setEnvironment(const std::string& name, const std::string& value) {
    ::setenv(name.c_str(), value.c_str(), 1);
}

void unsetEnvironment(const std::string& name) {
    ::unsetenv(name.c_str());
}

void changeDirectory(const std::string& path) {
    if (::chdir(path.c_str()) != 0) throw std::runtime_error("chdir failed: " + path);
}

}  // namespace qvtp_test
