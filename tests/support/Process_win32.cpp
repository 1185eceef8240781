#include "support/Process.h"

#include <windows.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>

namespace qvtp_test {

namespace {

constexpr UINT KILLED = 0x6B696C6C;

std::wstring wide(const std::string& utf8) {
    const int size = static_cast<int>(utf8.size());
    const int length = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, result.data(), length);
    return result;
}

/// In the form that the runtime of the program takes apart again: a quotation mark, and the backslashes before one or
/// at the end, have a backslash before them.
std::string quoted(const std::string& argument) {
    std::string result = "\"";
    std::size_t backslashes = 0;
    for (const char c : argument) {
        if (c == '"') result.append(backslashes + 1, '\\');
        backslashes = c == '\\' ? backslashes + 1 : 0;
        result += c;
    }
    result.append(backslashes, '\\');
    return result + "\"";
}

/// A path that may begin with a slash, or lack its ending, in full.
std::string fullProgramPath(const std::string& program) {
    char path[MAX_PATH] = {};
    ::GetFullPathNameA(program.c_str(), sizeof path, path, nullptr);
    const std::string full = path;
    const std::string ending = ".exe";
    const bool hasEnding =
        full.size() > ending.size() && full.compare(full.size() - ending.size(), ending.size(), ending) == 0;
    return hasEnding ? full : full + ending;
}

HANDLE openOutput(const std::string& file) {
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    return ::CreateFileW(wide(file).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         &inherited, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

struct Process::State {
    HANDLE process = nullptr;
};

Process::Process(const std::string& program, const std::vector<std::string>& arguments, const std::string& outputFile)
    : state_(std::make_unique<State>()) {
    const std::string path = fullProgramPath(program);
    std::string commandLine = quoted(path);
    for (const std::string& argument : arguments) commandLine += " " + quoted(argument);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = INVALID_HANDLE_VALUE;
    startup.hStdOutput = startup.hStdError = openOutput(outputFile);
    PROCESS_INFORMATION information{};
    const BOOL started = ::CreateProcessA(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                          &startup, &information);
    ::CloseHandle(startup.hStdOutput);
    if (!started) throw std::runtime_error("CreateProcess failed: " + path);
    ::CloseHandle(information.hThread);
    state_->process = information.hProcess;
}

Process::~Process() {
    kill();
    wait();
    ::CloseHandle(state_->process);
}

int Process::wait() {
    ::WaitForSingleObject(state_->process, INFINITE);
    DWORD exitCode = 0;
    ::GetExitCodeProcess(state_->process, &exitCode);
    return exitCode == KILLED ? -1 : static_cast<int>(exitCode);
}

void Process::kill() {
    ::TerminateProcess(state_->process, KILLED);  // without effect on one that has ended
}

void setEnvironment(const std::string& name, const std::string& value) {
    ::_wputenv_s(wide(name).c_str(), wide(value).c_str());
    // The runtime takes an empty value for a removal, the system does not.
    if (value.empty()) ::SetEnvironmentVariableW(wide(name).c_str(), L"");
}

void unsetEnvironment(const std::string& name) {
    ::_wputenv_s(wide(name).c_str(), L"");
}

void applyTimeZone() {
    ::_tzset();
}

void changeDirectory(const std::string& path) {
    if (!::SetCurrentDirectoryW(wide(path).c_str())) throw std::runtime_error("no such directory: " + path);
}

}  // namespace qvtp_test
