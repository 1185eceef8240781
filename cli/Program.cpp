#include "cli/Program.h"

#include <Poco/Environment.h>
#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>

#include <exception>
#include <future>

namespace qvtp::cli {

namespace {

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

Poco::Process::Env environmentOf(const Request& request) {
    Poco::Process::Env variables;
    variables["QVTP_METHOD"] = request.method();
    variables["QVTP_RESOURCE"] = request.resource();
    variables["QVTP_PEER_PID"] = std::to_string(request.peer().processId);
    for (const auto& [name, value] : request.headers()) {
        std::string& all = variables[variableOf(name)];
        all += all.empty() ? value : "," + value;
    }
    return variables;
}

/// A program that does not read its input to the end is none the worse for it.
void feed(Poco::Pipe& pipe, const std::string& body) {
    try {
        for (std::size_t done = 0; done < body.size();) {
            const std::size_t size = std::min<std::size_t>(body.size() - done, 65536);
            done += static_cast<std::size_t>(pipe.writeBytes(body.data() + done, static_cast<int>(size)));
        }
    } catch (const std::exception&) {
    }
    pipe.close(Poco::Pipe::CLOSE_BOTH);
}

}  // namespace

ProgramResult runProgram(const std::string& commandLine, const Request& request) {
#ifdef QVTP_CLI_SHELL_IS_CMD
    const std::string shell = "cmd";
    const Poco::Process::Args arguments{"/c", commandLine};
#else
    const std::string shell = "/bin/sh";
    const Poco::Process::Args arguments{"-c", commandLine};
#endif
    const std::string& body = request.body();
    Poco::Pipe in, out;
    Poco::ProcessHandle process = Poco::Process::launch(shell, arguments, &in, &out, nullptr, environmentOf(request));
    const auto fed = std::async(std::launch::async, [&] { feed(in, body); });
    ProgramResult result;
    Poco::PipeInputStream output(out);
    Poco::StreamCopier::copyToString(output, result.output);
    fed.wait();
    result.exitCode = process.wait();
    return result;
}

}  // namespace qvtp::cli
