// qvtp: pipes from the command line.

#include "cli/Command.h"
#include "cli/Terminal.h"

#include <qvtp/io/IllegalStateException.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using namespace qvtp::cli;

constexpr char LOST_OUTPUT[] = "What was to be printed could not be written to its end.";

/// Commands that end cleanly on a signal, as serve, take it over.
void endAtOnce(int) {
    std::_Exit(SIGNALLED);
}

int fail(const std::string& text, ExitCode code) {
    say("qvtp: " + text + "\n");
    return code;
}

/// What is wrong with the arguments. That of a command which is missing or unknown names those that there are.
std::string textOf(const CLI::ParseError& e, const CLI::App& program) {
    const CLI::App* app = &program;
    while (!app->get_subcommands().empty()) app = app->get_subcommands().front();
    std::string names;
    for (const CLI::App* command : app->get_subcommands([](const CLI::App*) { return true; })) {
        names += (names.empty() ? "" : ", ") + command->get_name();
    }
    if (names.empty()) return e.what();
    const std::vector<std::string> rest = app->remaining();
    const auto unknown = std::find_if(rest.begin(), rest.end(), [](const std::string& one) { return one[0] != '-'; });
    const std::string before = app == &program ? "" : app->get_name() + " ";
    if (unknown == rest.end()) {
        return "A command is missing" + (rest.empty() ? "" : " before " + rest.front()) + ". Commands: " + names;
    }
    return "There is no command " + before + *unknown + ". Commands: " + names;
}

int runUnguarded(Command& command) {
    const int code = command.run();
    if (!std::cout.flush()) return fail(LOST_OUTPUT, BROKEN);
    return code;
}

int run(Command& command) {
    try {
        return runUnguarded(command);
    } catch (const qvtp::Error& e) {
        return fail(e.what(), exitCodeOf(e.kind()));
    } catch (const std::bad_alloc&) {
        return fail("The system has no more memory for this.", BROKEN);
    } catch (const std::system_error& e) {
        const bool isOfThreads = e.code() == std::errc::resource_unavailable_try_again;
        return fail(isOfThreads ? "The system has no more threads for this." : e.what(), BROKEN);
    } catch (const std::exception& e) {
        return fail(e.what(), BROKEN);
    } catch (const Quovane::Io::IllegalStateException& e) {  // which has no base class
        return fail(e.getMessage(), BROKEN);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Terminal::takeClosedDescriptors();
    for (const int number : {SIGINT, SIGTERM}) {
        // What a shell has it ignore, as in the background, stays ignored.
        if (std::signal(number, endAtOnce) == SIG_IGN) std::signal(number, SIG_IGN);
    }
    CLI::App program("Sends requests to local pipes, serves them, and shows what happens on them.", "qvtp");
    program.require_subcommand(1);
    program.allow_windows_style_options(false);  // what begins with a slash is a resource on Windows too
    program.set_version_flag("--version", "qvtp " QVTP_CLI_VERSION);
    program.footer(EXIT_CODES);
    std::vector<std::pair<CLI::App*, std::unique_ptr<Command>>> commands;
    const auto add = [&](std::unique_ptr<Command> command) {
        CLI::App* const subcommand = command->addTo(program);
        subcommand->footer(EXIT_CODES);
        commands.emplace_back(subcommand, std::move(command));
    };
    add(makeSend(true));
    add(makeSend(false));
    add(makeServe());
    add(makeList());
    add(makePing());
    add(makeBench());
    add(makeTrace());
    add(makeConfig());
    add(makeCompletion());
    try {
        std::vector<std::string> arguments = Terminal::arguments(argc, argv);
        std::reverse(arguments.begin(), arguments.end());  // the order that parse() wants
        program.parse(std::move(arguments));
    } catch (const CLI::ParseError& e) {
        const bool isAsked = e.get_exit_code() == 0;  // for help, or the version
        if (!isAsked) return fail(textOf(e, program) + "\nRun with --help for more information.", USAGE);
        program.exit(e);
        return std::cout.flush() ? OK : fail(LOST_OUTPUT, BROKEN);
    }
    for (const auto& [subcommand, command] : commands) {
        if (subcommand->parsed()) return run(*command);
    }
    return USAGE;
}
