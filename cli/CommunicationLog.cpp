#include "cli/CommunicationLog.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <map>
#include <regex>
#include <utility>

namespace qvtp::cli {

namespace {

/// Milliseconds since 1970 of the fields of a time, in the zone of the log: local, or UTC.
std::int64_t millisecondsOf(const std::smatch& fields, bool isUtc) {
    std::tm time{};
    time.tm_year = std::atoi(fields[1].str().c_str()) - 1900;
    time.tm_mon = std::atoi(fields[2].str().c_str()) - 1;
    time.tm_mday = std::atoi(fields[3].str().c_str());
    time.tm_hour = std::atoi(fields[4].str().c_str());
    time.tm_min = std::atoi(fields[5].str().c_str());
    time.tm_sec = std::atoi(fields[6].str().c_str());
    time.tm_isdst = -1;
    std::time_t seconds = std::mktime(&time);
    if (isUtc) {
        // What mktime took for local time, moved by the distance of that from UTC.
        const std::tm utc = *std::gmtime(&seconds);
        std::tm copy = utc;
        copy.tm_isdst = -1;
        seconds += seconds - std::mktime(&copy);
    }
    return std::int64_t{seconds} * 1000 + std::atoi(fields[7].str().c_str());
}

std::string trimmedEnd(const std::string& text) {
    const std::size_t end = text.find_last_not_of(" \r");
    return end == std::string::npos ? "" : text.substr(0, end + 1);
}

/// Start line, headers and the size of the body. Where no length is announced, the body is what is left.
void readContent(const std::string& content, TracedMessage& message) {
    std::size_t begin = 0;
    const auto nextLine = [&]() -> std::optional<std::string> {
        if (begin >= content.size()) return std::nullopt;
        const std::size_t end = std::min(content.find('\n', begin), content.size());
        std::string line = content.substr(begin, end - begin);
        begin = end + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return line;
    };
    message.startLine = nextLine().value_or("");
    static const std::regex header("([!#$%&'*+.^_`|~0-9A-Za-z-]+): ?(.*)");
    for (;;) {
        const std::size_t before = begin;
        const std::optional<std::string> line = nextLine();
        std::smatch fields;
        if (!line || line->empty()) break;
        if (!std::regex_match(*line, fields, header)) {
            begin = before;
            break;
        }
        message.headers.emplace_back(fields[1], fields[2]);
    }
    const std::string length = valueOf(message.headers, "Content-Length");
    const std::size_t left = begin < content.size() ? content.size() - begin : 0;
    message.bodyBytes =
        length.empty() ? static_cast<std::int64_t>(left > 0 ? left - 1 : 0) : std::atoll(length.c_str());
}

void pair(Trace& trace) {
    std::map<std::pair<std::string, bool>, std::vector<std::size_t>> open;  // exchanges, by id and direction
    for (std::size_t i = 0; i < trace.messages.size(); ++i) {
        const TracedMessage& message = trace.messages[i];
        if (message.isRequest()) {
            if (message.startLine.rfind("POST ", 0) == 0) {
                open[{message.id, message.isOutput}].push_back(trace.exchanges.size());
            }
            trace.exchanges.push_back({i, std::nullopt});
            continue;
        }
        auto& waiting = open[{message.id, !message.isOutput}];
        if (waiting.empty()) continue;
        trace.exchanges[waiting.front()].response = i;
        waiting.erase(waiting.begin());
    }
}

}  // namespace

Trace readCommunicationLog(std::istream& log) {
    static const std::regex begin(R"((\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.([ \d]{3}) \[(INPUT |OUTPUT)\] (.*))");
    Trace trace;
    std::int64_t first = 0;
    std::string content;
    const auto finish = [&] {
        if (!trace.messages.empty()) readContent(content, trace.messages.back());
        content.clear();
    };
    for (std::string line; std::getline(log, line);) {
        std::smatch fields;
        if (line.size() < 40 || !std::regex_match(line, fields, begin)) {
            content += line + "\n";
            continue;
        }
        finish();
        const std::int64_t time = millisecondsOf(fields, false);
        if (trace.messages.empty()) first = time;
        TracedMessage message;
        message.timeMs = time - first;
        message.clock = line.substr(11, 12);
        message.isOutput = fields[8] == "OUTPUT";
        message.id = trimmedEnd(fields[9]);
        trace.messages.push_back(message);
        trace.firstMs = first;
    }
    finish();
    pair(trace);
    return trace;
}

void readDiagnosticLog(std::istream& log, Trace& trace) {
    static const std::regex form(
        R"((WARN |ERROR) - (\d{4})/(\d\d)/(\d\d)-(\d\d):(\d\d):(\d\d)\.([ \d]{3}) UTC - Thread-\d+: .*? - (.*)- Quovane\.SOA\.Qvtp)");
    static const std::regex time(R"((\d{4})/(\d\d)/(\d\d)-(\d\d):(\d\d):(\d\d)\.([ \d]{3}))");
    for (std::string line; std::getline(log, line);) {
        std::smatch fields, clock;
        if (!std::regex_match(line, fields, form) || !std::regex_search(line, clock, time)) continue;
        trace.lines.push_back({millisecondsOf(clock, true) - trace.firstMs, trimmedEnd(fields[1]), fields[9]});
    }
}

}  // namespace qvtp::cli
