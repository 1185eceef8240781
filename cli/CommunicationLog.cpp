#include "cli/CommunicationLog.h"

#include <Poco/String.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>

namespace qvtp::cli {

namespace {

using std::string_view;

// Lines and bodies may be of any length: forms are compared by hand, and only as far as their fixed part goes.

/// Whether `text` begins with what `form` describes: 9 is a digit, _ a digit or a blank.
bool hasForm(string_view text, string_view form) {
    if (text.size() < form.size()) return false;
    for (std::size_t i = 0; i < form.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        const bool isRight = form[i] == '9' ? isDigit : form[i] == '_' ? isDigit || text[i] == ' ' : text[i] == form[i];
        if (!isRight) return false;
    }
    return true;
}

bool startsWith(string_view text, string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

/// Milliseconds since 1970 of a time as both logs have it, local or UTC.
std::int64_t millisecondsOf(string_view text, bool isUtc) {
    const auto field = [&](std::size_t begin, std::size_t size) {
        return std::atoi(std::string(text.substr(begin, size)).c_str());
    };
    std::tm time{};
    time.tm_year = field(0, 4) - 1900;
    time.tm_mon = field(5, 2) - 1;
    time.tm_mday = field(8, 2);
    time.tm_hour = field(11, 2);
    time.tm_min = field(14, 2);
    time.tm_sec = field(17, 2);
    time.tm_isdst = -1;
    std::time_t seconds = std::mktime(&time);
    if (isUtc) {
        // What mktime took for local time, moved by the distance of that from UTC.
        const std::tm* const utc = std::gmtime(&seconds);
        std::tm copy = utc != nullptr ? *utc : time;  // not every system knows the time before 1970
        copy.tm_isdst = -1;
        seconds += seconds - std::mktime(&copy);
    }
    return std::int64_t{seconds} * 1000 + field(20, 3);
}

std::string trimmedEnd(string_view text) {
    const std::size_t end = text.find_last_not_of(" \r");
    return std::string(end == text.npos ? "" : text.substr(0, end + 1));
}

constexpr string_view TOKEN = "!#$%&'*+.^_`|~-0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

bool isContinuation(string_view line) {
    return !line.empty() && (line[0] == ' ' || line[0] == '\t');
}

bool isHeader(string_view line) {
    const std::size_t end = line.find_first_not_of(TOKEN);
    return end != line.npos && end > 0 && line[end] == ':';
}

void addHeader(Headers& headers, string_view line) {
    if (isContinuation(line) && !headers.empty()) {
        headers.back().second += " " + Poco::trim(std::string(line));
        return;
    }
    const std::size_t colon = std::min(line.find(':'), line.size());
    string_view value = line.substr(std::min(colon + 1, line.size()));
    if (startsWith(value, " ")) value.remove_prefix(1);
    headers.emplace_back(line.substr(0, colon), value);
}

/// Nothing if no body of the library can be so long.
std::optional<std::int64_t> lengthOf(const std::string& value) {
    std::int32_t length = -1;
    std::from_chars(value.data(), value.data() + value.size(), length);
    return length >= 0 ? std::optional<std::int64_t>(length) : std::nullopt;
}

/// What the head says of the length of its body, as the library reads it: a length comes first.
struct Framing {
    std::optional<std::int64_t> length;
    bool isChunked = false;

    bool isKnown() const { return length || isChunked; }

    void add(string_view line) {
        Headers one;
        addHeader(one, line.substr(0, 100));
        const auto& [name, value] = one[0];
        if (!length && Poco::icompare(name, "Content-Length") == 0) length = lengthOf(value);
        if (Poco::icompare(name, "Transfer-Encoding") == 0 && value == "chunked") isChunked = true;
    }
};

/// Reads records. The form of their first line may stand in a body as well, so a body is passed over by its length.
class RecordReader {
  public:
    /// `hasOutputBodies`: the log is known to have the bodies that were written.
    RecordReader(string_view log, bool hasOutputBodies) : log_(log), hasOutputBodies_(hasOutputBodies) {}

    Trace read() {
        Trace trace;
        for (position_ = nextRecord(0); position_ < log_.size();) {
            const std::int64_t time = millisecondsOf(log_.substr(position_, 23), false);
            if (trace.messages.empty()) trace.firstMs = time;
            TracedMessage& message = trace.messages.emplace_back();
            message.timeMs = time - trace.firstMs;
            message.clock = log_.substr(position_ + 11, 12);
            const string_view line = takeLine();
            message.isOutput = startsWith(line.substr(DIRECTION), "OUTPUT");
            message.id = trimmedEnd(line.substr(ID));
            if (isEnd(position_)) continue;
            const std::size_t head = position_;
            message.startLine = takeLine();
            const Unread unread = std::exchange(unread_, {});
            if (message.isOutput && readOutput(head, message, unread.length)) {
                TracedMessage& request = trace.messages[unread.message];
                for (const std::string& header : request.headersOrBody) addHeader(request.headers, header);
                request.headersOrBody.clear();
            }
            if (!message.isOutput && readInput(message)) {
                unread_ = {message.bodyBytes.value_or(0), trace.messages.size() - 1};
            }
        }
        return trace;
    }

    /// Whether bodies that were written have been found.
    bool foundOutputBodies() const { return foundOutputBodies_; }

  private:
    static constexpr std::size_t DIRECTION = 25, ID = 33, ID_WIDTH = 50;

    bool isRecord(std::size_t position) const {
        const string_view line = log_.substr(position, ID + ID_WIDTH);
        return line.size() == ID + ID_WIDTH && line.find('\n') == line.npos &&
               (hasForm(line, "9999-99-99 99:99:99.___ [INPUT ] ") ||
                hasForm(line, "9999-99-99 99:99:99.___ [OUTPUT] "));
    }

    /// Whether a record may end there.
    bool isEnd(std::size_t position) const { return position >= log_.size() || isRecord(position); }

    std::size_t afterLine(std::size_t position) const {
        const std::size_t end = log_.find('\n', position);
        return end == log_.npos ? log_.size() : end + 1;
    }

    std::size_t nextRecord(std::size_t position) const {
        while (!isEnd(position)) position = afterLine(position);
        return position;
    }

    string_view takeLine() {
        const std::size_t begin = std::exchange(position_, afterLine(position_));
        string_view line = log_.substr(begin, position_ - begin);
        const std::size_t end = line.find_last_not_of("\r\n");
        return line.substr(0, end == line.npos ? 0 : end + 1);
    }

    /// Where the record ends if its body begins at `begin` and is so long; nothing if it cannot.
    std::optional<std::size_t> endOfBody(std::size_t begin, std::int64_t length) const {
        if (length < 0 || static_cast<std::uint64_t>(length) > log_.size() - begin) return std::nullopt;
        if (length == 0 && isEnd(begin)) return begin;
        const std::size_t end = begin + static_cast<std::size_t>(length);
        if (end == log_.size()) return end;
        const std::size_t lineEnd = log_[end] == '\r' ? end + 1 : end;
        if (lineEnd >= log_.size() || log_[lineEnd] != '\n' || !isEnd(lineEnd + 1)) return std::nullopt;
        return lineEnd + 1;
    }

    /// An empty line ends the head. What was written after it is recorded whole, or not at all. A server records the
    /// head again with the body. What was not read of the request, `unread` bytes, may follow: true if it does.
    bool readOutput(std::size_t head, TracedMessage& message, std::int64_t unread) {
        Framing framing;
        while (!isEnd(position_)) {
            const string_view line = takeLine();
            if (line.empty()) break;
            addHeader(message.headers, line);
            framing.add(line);
        }
        const string_view headText = log_.substr(head, position_ - head);
        const bool isTwice = startsWith(log_.substr(position_), headText);
        const std::size_t body = isTwice ? position_ + headText.size() : position_;
        if (framing.length) return readOutputOfLength(*framing.length, body, message, unread);
        readRest(body, framing, message);
        foundOutputBodies_ |= body < position_ && unread == 0;
        if (unread > 0 && message.isStreamed) message.bodyBytes.reset();  // where one ends is not known
        return false;
    }

    bool readOutputOfLength(std::int64_t length, std::size_t body, TracedMessage& message, std::int64_t unread) {
        message.bodyBytes = length;
        std::optional<std::size_t> end;
        if (unread > 0) end = endOfTwo(body, length, unread);
        if (unread > 0 && !end) end = endOfBody(position_, unread);
        const bool isUnreadNext = end.has_value();
        const bool mayBeMissing = isEnd(position_);
        if (!end && (!mayBeMissing || hasOutputBodies_ || !isMessage(position_))) {
            end = endOfBody(body, length);
            if (!end) end = endOfBody(position_, length);
            foundOutputBodies_ |= end && !mayBeMissing && length > 0 && unread == 0;
        }
        position_ = end ? *end : nextRecord(position_);
        return isUnreadNext;
    }

    /// Of two bodies, each with its line end.
    std::optional<std::size_t> endOfTwo(std::size_t begin, std::int64_t first, std::int64_t second) const {
        const auto left = static_cast<std::int64_t>(log_.size() - begin);
        if (first < 0 || first >= left || log_[begin + static_cast<std::size_t>(first)] != '\n') return std::nullopt;
        return endOfBody(begin + static_cast<std::size_t>(first) + 1, second);
    }

    /// Whether a record at this place goes on as one does.
    bool isMessage(std::size_t record) const {
        const std::size_t begin = afterLine(std::min(record, log_.size()));
        const string_view line = log_.substr(begin, afterLine(begin) - begin);
        return startsWith(line, "QVTP/") || line.find(" QVTP/") != line.npos;
    }

    /// No empty line ends the head. With a length, the head ends where so many bytes are left of the record. True if
    /// the body may follow the next record: a server that has not read it skips it after its reply.
    bool readInput(TracedMessage& message) {
        const std::size_t begin = position_;
        Framing framing;
        Headers headers;
        for (;;) {
            const auto end = framing.length ? endOfBody(position_, *framing.length) : std::nullopt;
            if (end) {
                message.headers = std::move(headers);
                message.bodyBytes = framing.length;
                position_ = *end;
                return false;
            }
            if (isEnd(position_)) break;
            const string_view line = takeLine();
            if (line.empty()) break;
            addHeader(headers, line);
            framing.add(line);
        }
        const bool isHeadAlone = isEnd(position_);
        position_ = begin;
        readInputOfUnknownLength(message);
        return isHeadAlone && framing.length && *framing.length > 0;
    }

    /// The length is not known, or the body is not there as a whole. Certain are the headers up to the one that frames
    /// the body.
    void readInputOfUnknownLength(TracedMessage& message) {
        Framing framing;
        while (!isEnd(position_)) {
            const std::size_t begin = position_;
            const string_view line = takeLine();
            if (!isHeader(line) && !isContinuation(line)) {
                position_ = begin;
                break;
            }
            if (framing.isKnown()) {
                message.headersOrBody.emplace_back(line);
            } else {
                addHeader(message.headers, line);
                framing.add(line);
            }
        }
        readRest(position_, framing, message);
        if (framing.length) message.bodyBytes = framing.length;
    }

    /// The rest of the record, which has a body from `body` on, and a line end.
    void readRest(std::size_t body, const Framing& framing, TracedMessage& message) {
        message.isStreamed = framing.isChunked && !framing.length;
        position_ = nextRecord(position_);
        const bool isThere = body < position_;
        if (isThere || !message.isStreamed) {
            message.bodyBytes = isThere ? static_cast<std::int64_t>(position_ - body - 1) : 0;
        }
    }

    /// A body that is not where its head is.
    struct Unread {
        std::int64_t length = 0;
        std::size_t message = 0;
    };

    const string_view log_;
    const bool hasOutputBodies_;
    bool foundOutputBodies_ = false;
    std::size_t position_ = 0;
    Unread unread_;  // of the record before
};

void pair(Trace& trace) {
    std::map<std::pair<std::string, bool>, std::deque<std::size_t>> open;  // exchanges, by id and direction
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
        waiting.pop_front();
    }
}

/// Adds a line at WARN or ERROR; others are left out.
void readLine(string_view line, Trace& trace) {
    constexpr string_view ENDING = "- Quovane.SOA.Qvtp";
    constexpr std::size_t TIME = 8;
    const bool isChosen = startsWith(line, "WARN  - ") || startsWith(line, "ERROR - ");
    if (!isChosen || !hasForm(line.substr(TIME), "9999/99/99-99:99:99.___ UTC - Thread-9")) return;
    const std::size_t thread = line.find_first_not_of("0123456789", line.find("Thread-") + 7);
    if (thread == line.npos || !startsWith(line.substr(thread), ": ")) return;
    const std::size_t id = line.find(" - ", thread + 2);
    if (id == line.npos || line.size() < id + 3 + ENDING.size()) return;
    const string_view rest = line.substr(id + 3);
    const std::size_t size = rest.size() - ENDING.size();
    if (rest.substr(size) != ENDING) return;
    trace.lines.push_back({millisecondsOf(line.substr(TIME, 23), true) - trace.firstMs, trimmedEnd(line.substr(0, 5)),
                           std::string(rest.substr(0, size))});
}

}  // namespace

Trace readCommunicationLog(std::istream& log) {
    const std::string text{std::istreambuf_iterator<char>(log), {}};
    RecordReader reader(text, false);
    Trace trace = reader.read();
    if (reader.foundOutputBodies()) trace = RecordReader(text, true).read();
    pair(trace);
    return trace;
}

void readDiagnosticLog(std::istream& log, Trace& trace) {
    for (std::string line; std::getline(log, line);) readLine(line, trace);
}

}  // namespace qvtp::cli
