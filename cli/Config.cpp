// qvtp config check

#include "cli/Command.h"
#include "cli/ConfigCheck.h"
#include "cli/Json.h"

#include <Poco/Environment.h>

#include <iostream>
#include <string>
#include <vector>

namespace qvtp::cli {

namespace {

std::string titleOf(const CheckedEntry& entry) {
    return entry.kind + " function=\"" + entry.function + "\" component=\"" + entry.component + "\"";
}

std::string prefixOf(const Place& place) {
    if (place.line == 0) return " ";
    return std::to_string(place.line) + ":" + std::to_string(place.column) + ": ";
}

std::string reportOf(const ConfigReport& report, const std::vector<CheckedEntry>& entries) {
    std::string text;
    for (const CheckedEntry& entry : entries) {
        const bool isThere = entry.place.line > 0;
        text += report.file + ":" + prefixOf(entry.place) + (isThere ? "" : "no ") + titleOf(entry) + "\n";
        for (const EffectiveOption& option : entry.options) {
            text += "    " + option.name + "=" + std::to_string(option.value) + (option.isSet ? "\n" : " (default)\n");
        }
    }
    for (const Finding& finding : report.findings) {
        text += report.file + ":" + prefixOf(finding.place) + (finding.isError ? "error: " : "warning: ") +
                finding.text + "\n";
    }
    return text;
}

Json jsonOf(const Place& place) {
    return {{"line", place.line}, {"column", place.column}};
}

Json jsonOf(const CheckedEntry& entry) {
    Json one{{"kind", entry.kind}, {"function", entry.function}, {"component", entry.component}};
    one["found"] = entry.place.line > 0;
    if (entry.place.line > 0) one.update(jsonOf(entry.place));
    one["options"] = Json::object();
    one["defaults"] = Json::array();
    for (const EffectiveOption& option : entry.options) {
        one["options"][option.name] = option.value;
        if (!option.isSet) one["defaults"].push_back(option.name);
    }
    return one;
}

std::string jsonOf(const ConfigReport& report, const std::vector<CheckedEntry>& entries) {
    Json all{{"file", report.file}, {"read", report.isRead}};
    all["entries"] = Json::array();
    for (const CheckedEntry& entry : entries) all["entries"].push_back(jsonOf(entry));
    all["findings"] = Json::array();
    for (const Finding& finding : report.findings) {
        Json one{{"severity", finding.isError ? "error" : "warning"}, {"text", finding.text}};
        if (finding.place.line > 0) one.update(jsonOf(finding.place));
        all["findings"].push_back(one);
    }
    return textOf(all);
}

class Config : public Command {
  public:
    CLI::App* addTo(CLI::App& program) override {
        CLI::App* const config = program.add_subcommand("config", "Look at a configuration file");
        config->require_subcommand(1);
        CLI::App* const check =
            config->add_subcommand("check", "Check a configuration file, and print what its entries come to");
        check->footer(EXIT_CODES);
        check->add_option("FILE", file_, "The file; without it, the one that programs would use here");
        function_ = check->add_option("--function", functionName_, "Print what this function and component get alone");
        component_ = check->add_option("--component", componentName_, "With --function; both are empty by default");
        check->add_flag("--json", isJson_, "Print the result as JSON");
        return config;
    }

    int run() override {
        if (file_.empty()) file_ = Poco::Environment::get("QvtpConfigurationFile", "QvtpConfig.xml");
        const ConfigReport report = checkConfig(file_);
        const bool isAsked = *function_ || *component_;
        std::vector<CheckedEntry> entries = report.entries;
        bool isFound = true;
        if (isAsked) {
            entries = {entryOf(report, "QvtpClient"), entryOf(report, "QvtpServer")};
            isFound = entries[0].place.line > 0 || entries[1].place.line > 0;
        }
        std::cout << (isJson_ ? jsonOf(report, entries) : reportOf(report, entries)) << std::flush;
        return report.isRead && report.findings.empty() && isFound ? OK : OTHER_STATUS;
    }

  private:
    /// The first one, as for programs.
    CheckedEntry entryOf(const ConfigReport& report, const std::string& kind) const {
        for (const CheckedEntry& entry : report.entries) {
            if (entry.kind == kind && entry.function == functionName_ && entry.component == componentName_) {
                return entry;
            }
        }
        return effectiveEntry(kind, functionName_, componentName_);
    }

    std::string file_, functionName_, componentName_;
    CLI::Option *function_ = nullptr, *component_ = nullptr;
    bool isJson_ = false;
};

}  // namespace

std::unique_ptr<Command> makeConfig() {
    return std::make_unique<Config>();
}

}  // namespace qvtp::cli
