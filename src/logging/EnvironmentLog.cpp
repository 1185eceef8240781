#include "logging/EnvironmentLog.h"

#include "common/System.h"
#include "common/Text.h"
#include "logging/Logger.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace Quovane::Internal::Qvtp::EnvironmentLog {

namespace {

using CommunicationLevel = Logger::CommunicationLevel;
using LoggingLevel = Logger::LoggingLevel;

constexpr char LOG[] = "QVTP_LOG";
constexpr char COMMUNICATION_LOG[] = "QVTP_COMMUNICATION_LOG";

template <typename Level>
struct Word {
    std::string_view word;
    Level level;
};

constexpr Word<LoggingLevel> LEVELS[] = {{"OFF", LoggingLevel::OFF},
                                         {"ERROR", LoggingLevel::ERROR},
                                         {"WARN", LoggingLevel::WARN},
                                         {"INFO", LoggingLevel::INFO},
                                         {"DEBUG", LoggingLevel::DEBUG}};
constexpr Word<CommunicationLevel> DIRECTIONS[] = {{"OFF", CommunicationLevel::OFF},
                                                   {"INPUT", CommunicationLevel::INPUT},
                                                   {"OUTPUT", CommunicationLevel::OUTPUT},
                                                   {"BOTH", CommunicationLevel::BOTH}};

void report(std::string_view variable, std::string_view problem) {
    const std::string line = text("libqvtp: ", variable, ": ", problem, "\n");
    std::fputs(line.c_str(), stderr);
}

bool isSameWord(std::string_view left, std::string_view right) {
    const auto upper = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; };
    return left.size() == right.size() &&
           std::equal(left.begin(), left.end(), right.begin(), [&](char l, char r) { return upper(l) == upper(r); });
}

/// What one of the variables says.
template <typename Level>
struct Request {
    Level level = Level::OFF;
    System::File file;  // none: standard error
};

/// Null, with a line on standard error, if the word is none of these.
template <typename Level, std::size_t COUNT>
const Word<Level>* find(const char* variable, std::string_view word, const Word<Level> (&words)[COUNT]) {
    for (const Word<Level>& known : words) {
        if (isSameWord(known.word, word)) return &known;
    }
    std::string problem = text("\"", word, "\" is none of");
    for (const Word<Level>& known : words) problem += text(" ", known.word);
    report(variable, problem);
    return nullptr;
}

template <typename Level, std::size_t COUNT>
Request<Level> read(const char* variable, const Word<Level> (&words)[COUNT]) {
    Request<Level> request;
    const std::optional<std::string> value = System::environmentVariable(variable);
    if (!value || value->empty()) return request;
    const std::string_view whole = *value;
    const std::string_view word = whole.substr(0, whole.find(':'));
    const std::string path(whole.substr(std::min(word.size() + 1, whole.size())));
    const Word<Level>* const known = find(variable, word, words);
    if (known == nullptr || known->level == Level::OFF) return request;
    if (!path.empty()) {
        request.file = System::openFileToAppend(path);
        if (request.file == nullptr) {
            report(variable, text("cannot write to ", path, ": ", std::generic_category().message(errno)));
            return request;
        }
    }
    request.level = known->level;
    return request;
}

}  // namespace

void apply() {
    if (System::hasMoreRightsThanItsUser()) return;
    try {
        Request<LoggingLevel> log = read(LOG, LEVELS);
        Request<CommunicationLevel> communication = read(COMMUNICATION_LOG, DIRECTIONS);
        if (log.level == LoggingLevel::OFF && communication.level == CommunicationLevel::OFF) return;
        Logger::instance().configure(std::move(log.file), log.level, std::move(communication.file),
                                     communication.level);
    } catch (const std::bad_alloc&) {
        // A program that has no memory before main() has other worries.
    }
}

}  // namespace Quovane::Internal::Qvtp::EnvironmentLog
