// qvtp ls

#include "cli/Command.h"
#include "cli/Json.h"
#include "cli/Pipes.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace qvtp::cli {

namespace {

std::string tableOf(const std::vector<PipeEntry>& pipes) {
    std::vector<std::vector<std::string>> rows = {{"NAME", "STATE", "DIRECTION", "PID", "PROGRAM"}};
    for (const PipeEntry& pipe : pipes) {
        rows.push_back({pipe.name, pipe.isLive ? "live" : "stale", pipe.direction.empty() ? "-" : pipe.direction,
                        pipe.pid < 0 ? "-" : std::to_string(pipe.pid), pipe.program.empty() ? "-" : pipe.program});
    }
    std::vector<std::size_t> widths(rows[0].size());
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string table;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) line += row[i] + std::string(widths[i] + 2 - row[i].size(), ' ');
        table += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return table;
}

std::string jsonOf(const std::vector<PipeEntry>& pipes) {
    Json all = Json::array();
    for (const PipeEntry& pipe : pipes) {
        Json one{{"name", pipe.name}, {"path", pipe.path}, {"state", pipe.isLive ? "live" : "stale"}};
        if (!pipe.direction.empty()) one["direction"] = pipe.direction;
        if (pipe.pid >= 0) one["pid"] = pipe.pid;
        if (!pipe.program.empty()) one["program"] = pipe.program;
        all.push_back(one);
    }
    return textOf(all);
}

std::string namesOf(const std::vector<PipeEntry>& pipes) {
    std::string names;
    for (const PipeEntry& pipe : pipes) {
        if (pipe.isLive) names += pipe.name + "\n";
    }
    return names;
}

class List : public Command {
  public:
    CLI::App* addTo(CLI::App& program) override {
        CLI::App* const app = program.add_subcommand("ls", "List the pipes of this user");
        auto* const json = app->add_flag("--json", isJson_, "Print them as JSON");
        app->add_flag("--names", areNames_, "Print the names of those that are served, one on a line")->excludes(json);
        app->add_flag("--watch", isWatching_, "Print them again whenever something has changed, until a signal comes");
        return app;
    }

    int run() override {
        std::string last;
        for (;;) {
            const std::vector<PipeEntry> pipes = findPipes();
            const std::string now = isJson_ ? jsonOf(pipes) : areNames_ ? namesOf(pipes) : tableOf(pipes);
            if (now != last) std::cout << now << std::flush;
            if (!std::cout) return BROKEN;  // nobody reads it any more
            if (!isWatching_) return OK;
            last = now;
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
    }

  private:
    bool isJson_ = false, areNames_ = false, isWatching_ = false;
};

}  // namespace

std::unique_ptr<Command> makeList() {
    return std::make_unique<List>();
}

}  // namespace qvtp::cli
