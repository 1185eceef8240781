#include "cli/Shell.h"

#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>

#include <algorithm>
#include <exception>

namespace qvtp::cli {

struct ShellCommand::State {
    State(const std::string& commandLine, const Variables& variables)
        : process(Poco::Process::launch("cmd", {"/c", commandLine}, &input, &output, nullptr, variables)) {}

    Poco::Pipe input, output;
    Poco::ProcessHandle process;
};

ShellCommand::ShellCommand(const std::string& commandLine, const Variables& variables)
    : state_(std::make_unique<State>(commandLine, variables)) {}

ShellCommand::~ShellCommand() = default;

void ShellCommand::feed(const std::string& input) {
    constexpr std::size_t MOST = 65536;
    try {
        for (std::size_t done = 0; done < input.size();) {
            const std::size_t size = std::min(input.size() - done, MOST);
            done += static_cast<std::size_t>(state_->input.writeBytes(input.data() + done, static_cast<int>(size)));
        }
    } catch (const std::exception&) {
    }
    state_->input.close(Poco::Pipe::CLOSE_BOTH);
}

std::string ShellCommand::readOutput() {
    std::string all;
    Poco::PipeInputStream output(state_->output);
    Poco::StreamCopier::copyToString(output, all);
    return all;
}

void ShellCommand::waitForEnd() {
    state_->process.wait();
}

int ShellCommand::exitCode() {
    return state_->process.wait();
}

void ShellCommand::end(bool) {}

}  // namespace qvtp::cli
