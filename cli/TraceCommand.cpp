// qvtp trace

#include "cli/Command.h"
#include "cli/TraceReport.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace qvtp::cli {

namespace {

class TraceCommand : public Command {
  public:
    CLI::App* addTo(CLI::App& program) override {
        CLI::App* const app = program.add_subcommand("trace", "Show a communication log as a sequence of messages");
        app->add_option("COMMLOG", communicationLog_, "The file of QVTP_COMMUNICATION_LOG")->required();
        app->add_option("DEBUGLOG", diagnosticLog_, "The file of QVTP_LOG: its warnings and errors are shown too");
        app->add_option("-o,--output", output_,
                        "Write a picture (.svg), a page with all headers (.html) or data (.json) to this file");
        app->add_flag("--json", isJson_, "Print the data as JSON");
        return app;
    }

    int run() override {
        std::ifstream log = opened(communicationLog_);
        Trace trace = readCommunicationLog(log);
        if (trace.messages.empty()) {
            throw Error(ErrorKind::misuse, communicationLog_ + " has no message of a communication log.");
        }
        if (!diagnosticLog_.empty()) {
            std::ifstream lines = opened(diagnosticLog_);
            readDiagnosticLog(lines, trace);
        }
        if (output_.empty()) {
            std::cout << (isJson_ ? jsonOf(trace) : textOf(trace)) << std::flush;
            return OK;
        }
        std::ofstream file(std::filesystem::u8path(output_), std::ios::binary);
        file << formatted(trace) << std::flush;
        if (!file) throw Error(ErrorKind::misuse, "Cannot write to " + output_ + ".");
        return OK;
    }

  private:
    static std::ifstream opened(const std::string& path) {
        std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
        if (!file) throw Error(ErrorKind::misuse, "Cannot read " + path + ".");
        return file;
    }

    bool endsWith(const std::string& ending) const {
        return output_.size() >= ending.size() &&
               output_.compare(output_.size() - ending.size(), ending.size(), ending) == 0;
    }

    std::string formatted(const Trace& trace) const {
        if (endsWith(".svg")) return svgOf(trace);
        if (endsWith(".html")) return htmlOf(trace);
        if (endsWith(".json")) return jsonOf(trace);
        throw Error(ErrorKind::misuse, "The file ends with .svg, .html or .json.");
    }

    std::string communicationLog_, diagnosticLog_, output_;
    bool isJson_ = false;
};

}  // namespace

std::unique_ptr<Command> makeTrace() {
    return std::make_unique<TraceCommand>();
}

}  // namespace qvtp::cli
