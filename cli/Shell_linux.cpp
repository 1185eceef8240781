#include "cli/Shell.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>
#include <vector>

namespace qvtp::cli {

namespace {

class Descriptor {
  public:
    Descriptor() = default;
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    void take(int number) { number_ = number; }
    int get() const { return number_; }
    void close() {
        if (number_ >= 0) ::close(std::exchange(number_, -1));
    }

  private:
    int number_ = -1;
};

void require(int error) {
    if (error != 0) throw std::system_error(error, std::generic_category());
}

void makePipe(Descriptor& toRead, Descriptor& toWrite) {
    int both[2];
    require(::pipe2(both, O_CLOEXEC) == 0 ? 0 : errno);
    toRead.take(both[0]);
    toWrite.take(both[1]);
}

/// "NAME=value" of each variable of this program and of these, which take precedence.
std::vector<std::string> environmentWith(const ShellCommand::Variables& variables) {
    std::vector<std::string> all;
    for (char** one = environ; *one != nullptr; ++one) {
        const std::string line = *one;
        if (variables.count(line.substr(0, line.find('='))) == 0) all.push_back(line);
    }
    for (const auto& [name, value] : variables) all.emplace_back(name).append("=").append(value);
    return all;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

struct FileActions {
    FileActions() { require(::posix_spawn_file_actions_init(&all)); }
    ~FileActions() { ::posix_spawn_file_actions_destroy(&all); }
    posix_spawn_file_actions_t all;
};

struct Attributes {
    Attributes() { require(::posix_spawnattr_init(&all)); }
    ~Attributes() { ::posix_spawnattr_destroy(&all); }
    posix_spawnattr_t all;
};

}  // namespace

struct ShellCommand::State {
    Descriptor input, output;
    pid_t process = 0;  // and the group of all that it starts; 0: its end was fetched
};

/// In a group of its own, so that it can be ended with all that it starts, and with all signals let in.
ShellCommand::ShellCommand(const std::string& commandLine, const Variables& variables)
    : state_(std::make_unique<State>()) {
    Descriptor theirInput, theirOutput;
    makePipe(theirInput, state_->input);
    makePipe(state_->output, theirOutput);
    FileActions files;
    require(::posix_spawn_file_actions_adddup2(&files.all, theirInput.get(), STDIN_FILENO));
    require(::posix_spawn_file_actions_adddup2(&files.all, theirOutput.get(), STDOUT_FILENO));
    Attributes attributes;
    sigset_t none;
    ::sigemptyset(&none);
    require(::posix_spawnattr_setsigmask(&attributes.all, &none));
    require(::posix_spawnattr_setpgroup(&attributes.all, 0));
    require(::posix_spawnattr_setflags(&attributes.all, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK));
    std::vector<std::string> environment = environmentWith(variables), arguments = {"/bin/sh", "-c", commandLine};
    require(::posix_spawn(&state_->process, arguments[0].c_str(), &files.all, &attributes.all,
                          pointersTo(arguments).data(), pointersTo(environment).data()));
}

ShellCommand::~ShellCommand() {
    if (state_->process == 0) return;
    end(true);
    exitCode();
}

void ShellCommand::feed(const std::string& input) {
    sigset_t brokenPipe;
    ::sigemptyset(&brokenPipe);
    ::sigaddset(&brokenPipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
    for (std::size_t done = 0; done < input.size();) {
        const ssize_t size = ::write(state_->input.get(), input.data() + done, input.size() - done);
        if (size < 0 && errno != EINTR) break;
        if (size > 0) done += static_cast<std::size_t>(size);
    }
    state_->input.close();
}

std::string ShellCommand::readOutput() {
    std::string all;
    for (char piece[16384];;) {
        const ssize_t size = ::read(state_->output.get(), piece, sizeof piece);
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) return all;
        all.append(piece, static_cast<std::size_t>(size));
    }
}

/// The number of the process stays taken.
void ShellCommand::waitForEnd() {
    siginfo_t end;
    while (::waitid(P_PID, static_cast<id_t>(state_->process), &end, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

int ShellCommand::exitCode() {
    int status = 0;
    while (::waitpid(state_->process, &status, 0) < 0 && errno == EINTR) {
    }
    state_->process = 0;
    constexpr int KILLED = 256;
    return WIFEXITED(status) ? WEXITSTATUS(status) : KILLED + WTERMSIG(status);
}

void ShellCommand::end(bool isForced) {
    ::kill(-state_->process, isForced ? SIGKILL : SIGTERM);
}

}  // namespace qvtp::cli
