#include "support/LogCapture.h"

#include <qvtp/message/QvtpMessage.h>

#include "common/System.h"
#include "support/TemporaryFile.h"

#include <algorithm>
#include <regex>

namespace qvtp_test {

using Quovane::Qvtp::QvtpMessage;

namespace {

const char ENDING[] = "- Quovane.SOA.Qvtp\n";

/// What the file has after the position, which moves to its end.
std::string restOf(std::FILE* file, long& position) {
    std::string contents;
    std::fflush(file);
    const long end = (std::fseek(file, 0, SEEK_END), std::ftell(file));
    if (end > position) {
        contents.resize(static_cast<std::size_t>(end - position));
        std::fseek(file, position, SEEK_SET);
        contents.resize(std::fread(&contents[0], 1, contents.size(), file));
    }
    std::fseek(file, 0, SEEK_END);
    position = end;
    return contents;
}

}  // namespace

LogCapture::Files::Files() : log(temporaryFile()), communication(temporaryFile()) {}

LogCapture::Files::~Files() {
    std::fclose(log);
    std::fclose(communication);
}

LogCapture::LogCapture(LoggingLevel level, CommunicationLevel commLevel) : level_(level), commLevel_(commLevel) {
    startWritingTo(files_[current_]);
}

LogCapture::~LogCapture() {
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
}

void LogCapture::startWritingTo(const Files& files) const {
    QvtpMessage::setLoggingLevel(files.log, level_, files.communication, commLevel_);
}

/// When the logger has gone over to the other files, nobody writes to these any more.
void LogCapture::collect() const {
    Files& written = files_[current_];
    current_ = 1 - current_;
    startWritingTo(files_[current_]);
    text_ += restOf(written.log, written.logRead);
    communication_ += restOf(written.communication, written.communicationRead);
}

std::string LogCapture::text() const {
    std::lock_guard<std::mutex> guard(mutex_);
    collect();
    return text_;
}

std::string LogCapture::communication() const {
    std::lock_guard<std::mutex> guard(mutex_);
    collect();
    return communication_;
}

std::vector<std::string> LogCapture::parse(const std::string& thread) const {
    static const std::regex form(
        R"((OFF  |ERROR|WARN |INFO |DEBUG) - \d{4}/\d\d/\d\d-\d\d:\d\d:\d\d\.[ \d]{3} UTC - Thread-(\d+): ([^\n]*?) - )");
    std::vector<std::string> messages;
    const std::string log = text();
    for (std::size_t start = 0; start < log.size();) {
        const std::size_t end = std::min(log.find(ENDING, start), log.size());
        const std::string line = log.substr(start, end - start);
        std::smatch match;
        if (!std::regex_search(line, match, form, std::regex_constants::match_continuous)) {
            messages.push_back("MALFORMED " + line);
        } else if (thread.empty() || match[2] == thread) {
            const std::string level = match[1];
            messages.push_back(level.substr(0, level.find(' ')) + " " + match.suffix().str());
        }
        start = end + sizeof ENDING - 1;
    }
    return messages;
}

std::vector<std::string> LogCapture::messages() const {
    return parse("");
}

std::vector<std::string> LogCapture::messagesOfThisThread() const {
    return parse(std::to_string(Quovane::Internal::Qvtp::System::currentThreadId()));
}

bool LogCapture::contains(const std::string& message) const {
    return count(message) > 0;
}

int LogCapture::count(const std::string& message) const {
    const auto all = messages();
    return static_cast<int>(std::count(all.begin(), all.end(), message));
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    collect();
    text_.clear();
    communication_.clear();
}

std::string withoutHandles(const std::string& message) {
    static const std::regex handle("0x(?!f{8,16}\\b)[0-9a-f]+");
    return std::regex_replace(message, handle, "0xH");
}

std::vector<std::string> withoutHandles(const std::vector<std::string>& messages) {
    std::vector<std::string> result;
    for (const std::string& message : messages) result.push_back(withoutHandles(message));
    return result;
}

}  // namespace qvtp_test
