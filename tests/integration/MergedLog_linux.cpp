#include "integration/MergedLog.h"

#include <qvtp/message/QvtpMessage.h>

#include "support/TemporaryFile.h"

#include <stdio.h>  // flockfile

#include <algorithm>
#include <regex>

namespace qvtp_test {

namespace {

using Quovane::Qvtp::CommunicationLevel;
using Quovane::Qvtp::LoggingLevel;
using Quovane::Qvtp::QvtpMessage;

constexpr std::size_t LONGEST_RUN = 16;

/// Other threads may be writing. They wait meanwhile, or they would write where this reads.
std::string contentsOf(std::FILE* file) {
    ::flockfile(file);
    std::fflush(file);
    std::fseek(file, 0, SEEK_END);
    std::string contents(static_cast<std::size_t>(std::ftell(file)), '\0');
    std::fseek(file, 0, SEEK_SET);
    contents.resize(std::fread(&contents[0], 1, contents.size(), file));
    std::fseek(file, 0, SEEK_END);
    ::funlockfile(file);
    return contents;
}

std::string withoutChangingParts(const std::string& message) {
    static const std::regex handle("0x[0-9a-f]+");
    static const std::regex rate("\\([^ ]+ Mbps\\)");
    return std::regex_replace(std::regex_replace(message, handle, "0xH"), rate, "(R Mbps)");
}

std::string withoutTimes(const std::string& records) {
    static const std::regex header(
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.[ \\d]{3} (\\[(?:IN|OUT)PUT *\\]) {51}\n");
    return std::regex_replace(records, header, "$1\n");
}

/// Long runs of one byte as that byte and their length.
std::string withShortRuns(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t end = std::min(text.find_first_not_of(text[i], i), text.size());
        if (end - i > LONGEST_RUN) {
            result += text[i] + ("{" + std::to_string(end - i) + "}");
        } else {
            result.append(text, i, end - i);
        }
        i = end;
    }
    return result;
}

std::string asBarredLines(const std::string& records) {
    std::string text = withShortRuns(withoutTimes(records));
    std::string result;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.replace(line.size() - 1, 1, "<CR>");
        result += "| " + line + (end == text.size() ? "\\\n" : "\n");
        start = end + 1;
    }
    return result;
}

}  // namespace

MergedLog::MergedLog(Communication communication) : file_(temporaryFile()) {
    const bool isOn = communication == Communication::BOTH;
    QvtpMessage::setLoggingLevel(file_, LoggingLevel::DEBUG, isOn ? file_ : nullptr,
                                 isOn ? CommunicationLevel::BOTH : CommunicationLevel::OFF);
}

MergedLog::~MergedLog() {
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    std::fclose(file_);
}

std::vector<MergedLog::Entry> MergedLog::entries() const {
    static const std::regex line(
        "(OFF  |ERROR|WARN |INFO |DEBUG) - \\d{4}/\\d\\d/\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.[ \\d]{3} UTC - "
        "Thread-(\\d+):  - ([^\n]*)- Quovane\\.SOA\\.Qvtp\n");
    const std::string log = contentsOf(file_);
    std::vector<Entry> entries;
    auto last = log.begin();
    for (std::sregex_iterator i(log.begin(), log.end(), line); i != std::sregex_iterator(); ++i) {
        const std::smatch& match = *i;
        if (match[0].first != last) entries.push_back({0, std::string(last, match[0].first)});
        const auto thread = static_cast<std::uint32_t>(std::stoul(match[2]));
        entries.push_back({thread, match[1].str() + " " + withoutChangingParts(match[3])});
        last = match[0].second;
    }
    if (last != log.end()) entries.push_back({0, std::string(last, log.end())});
    return entries;
}

std::string asText(const std::vector<MergedLog::Entry>& entries) {
    std::string text;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].thread != 0) {
            text += entries[i].text + "\n";
            continue;
        }
        std::string records = entries[i].text;  // what stood between two pieces may have been left out
        while (i + 1 < entries.size() && entries[i + 1].thread == 0) records += entries[++i].text;
        text += asBarredLines(records);
    }
    return text;
}

}  // namespace qvtp_test
