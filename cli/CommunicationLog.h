#pragma once

#include <qvtp/easy.h>

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace qvtp::cli {

/// One message of a communication log.
struct TracedMessage {
    std::int64_t timeMs = 0;  ///< since the first one of the log
    std::string clock;        ///< its time as the log has it
    bool isOutput = false;    ///< written by the process that logged, else read
    std::string id;           ///< correlation id, often empty
    std::string startLine;
    Headers headers;
    std::vector<std::string> headersOrBody;  ///< lines after the headers: the log does not say which of the two
    bool isStreamed = false;                 ///< sent without a length
    /// As announced; else as recorded, without `headersOrBody`. None if nothing of a streamed body was recorded.
    std::optional<std::int64_t> bodyBytes;

    bool isRequest() const { return startLine.rfind("QVTP/", 0) != 0; }
};

/// A request with what answered it, as places in the list of messages.
struct TracedExchange {
    std::size_t request = 0;
    std::optional<std::size_t> response;  ///< none for a NOTIFY, or if the log has none
};

/// A line of the diagnostic log at WARN or ERROR.
struct TracedLine {
    std::int64_t timeMs = 0;
    std::string level, text;
};

struct Trace {
    std::vector<TracedMessage> messages;
    std::vector<TracedExchange> exchanges;  ///< in the order of their requests
    std::vector<TracedLine> lines;
    std::int64_t firstMs = 0;  ///< when the log begins, since 1970
};

/// Reads a communication log. A response belongs to the oldest unanswered request of its correlation id that went the
/// other way. What stands before the first message is left out.
Trace readCommunicationLog(std::istream& log);
/// Adds what a diagnostic log of the same process has at WARN and ERROR.
void readDiagnosticLog(std::istream& log, Trace& trace);

}  // namespace qvtp::cli
