#include "cli/TraceReport.h"

#include "cli/Json.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace qvtp::cli {

namespace {

constexpr int WIDTH = 960, ROW = 30, TOP = 60;
constexpr int LEFT = 260, RIGHT = 800;  // the two lifelines
constexpr int BAR_LEFT = 260, BAR_WIDTH = 560, BAR_ROW = 22;

/// Text that XML, HTML and terminals take: in the place of what is no UTF-8 and of each control character is U+FFFD.
std::string clean(const std::string& text) {
    constexpr char REPLACEMENT[] = "\xEF\xBF\xBD";
    const std::string utf8 = Json::parse(textOf(Json(text))).get<std::string>();
    std::string result;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const char c = utf8[i];
        const bool isPair = c == '\xC2' && static_cast<unsigned char>(utf8[i + 1]) < 0xA0;  // U+0080 to U+009F
        const bool isNoCharacter = utf8.compare(i, 3, "\xEF\xBF\xBE") == 0 || utf8.compare(i, 3, "\xEF\xBF\xBF") == 0;
        const bool isControl = (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7F';
        if (!isPair && !isNoCharacter && !isControl) {
            result += c;
            continue;
        }
        result += REPLACEMENT;
        i += isPair ? 1 : isNoCharacter ? 2 : 0;
    }
    return result;
}

/// For XML and HTML.
std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : clean(text)) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '"':
                result += "&quot;";
                break;
            default:
                result += c;
        }
    }
    return result;
}

/// To so many bytes, between two characters.
std::string shortened(const std::string& text, std::size_t most) {
    std::string whole = clean(text);
    if (whole.size() <= most) return whole;
    std::size_t end = most - 3;
    while ((static_cast<unsigned char>(whole[end]) & 0xC0) == 0x80) --end;
    return whole.substr(0, end) + "...";
}

/// What happened, in the order of time: a message, or a line of the log.
struct Event {
    std::int64_t timeMs;
    const TracedMessage* message;
    const TracedLine* line;
};

std::vector<Event> eventsOf(const Trace& trace) {
    std::vector<Event> events;
    for (const TracedMessage& message : trace.messages) events.push_back({message.timeMs, &message, nullptr});
    for (const TracedLine& line : trace.lines) events.push_back({line.timeMs, nullptr, &line});
    std::stable_sort(events.begin(), events.end(),
                     [](const Event& left, const Event& right) { return left.timeMs < right.timeMs; });
    return events;
}

std::string sizeOf(const TracedMessage& message) {
    const std::int64_t bytes = message.bodyBytes.value_or(0);
    const std::string size = std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    const bool isLeast = message.isStreamed && !message.headersOrBody.empty();
    if (!message.bodyBytes || (isLeast && bytes == 0)) return "streamed";
    return isLeast ? "streamed, at least " + size : size;
}

/// What follows the start line, which may be long.
std::string labelOf(const TracedMessage& message, std::size_t most) {
    const std::string size = ", " + sizeOf(message);
    return shortened(message.startLine, most - size.size()) + size;
}

std::string labelOf(const TracedMessage& message) {
    return clean(message.startLine) + ", " + sizeOf(message);
}

std::string sizedText(int x, int y, const char* anchor, const std::string& text, const char* style = "") {
    std::ostringstream out;
    out << "<text x=\"" << x << "\" y=\"" << y << "\" text-anchor=\"" << anchor << "\"" << style << ">" << escaped(text)
        << "</text>\n";
    return out.str();
}

std::string arrow(const TracedMessage& message, int y) {
    std::ostringstream out;
    const int from = message.isOutput ? LEFT : RIGHT;
    const int to = message.isOutput ? RIGHT : LEFT;
    const int tip = message.isOutput ? to - 8 : to + 8;
    const char* const color = message.isRequest() ? "#1b5e9e" : "#2e7d32";
    out << "<line x1=\"" << from << "\" y1=\"" << y << "\" x2=\"" << tip << "\" y2=\"" << y << "\" stroke=\"" << color
        << "\" stroke-width=\"1.5\"" << (message.isRequest() ? "" : " stroke-dasharray=\"6 3\"") << "/>\n"
        << "<path d=\"M" << to << " " << y << " L" << tip << " " << y - 4 << " L" << tip << " " << y + 4
        << " Z\" fill=\"" << color << "\"/>\n"
        << sizedText((LEFT + RIGHT) / 2, y - 5, "middle", labelOf(message, 70));
    return out.str();
}

std::string sequence(const std::vector<Event>& events, int& y) {
    std::string picture = sizedText(LEFT, 30, "middle", "this process", " font-weight=\"bold\"") +
                          sizedText(RIGHT, 30, "middle", "its peer", " font-weight=\"bold\"");
    y = TOP;
    std::string rows;
    for (const Event& event : events) {
        rows += sizedText(20, y, "start", "+" + std::to_string(event.timeMs) + " ms", " fill=\"#555\"");
        if (event.message != nullptr) {
            rows += sizedText(LEFT - 12, y, "end", shortened(event.message->id, 18), " fill=\"#555\"") +
                    arrow(*event.message, y);
        } else {
            rows += sizedText(LEFT + 12, y, "start", shortened(event.line->level + " " + event.line->text, 90),
                              " fill=\"#b71c1c\"");
        }
        y += ROW;
    }
    for (const int x : {LEFT, RIGHT}) {
        picture += "<line x1=\"" + std::to_string(x) + "\" y1=\"40\" x2=\"" + std::to_string(x) + "\" y2=\"" +
                   std::to_string(y - ROW / 2) + "\" stroke=\"#999\"/>\n";
    }
    return picture + rows;
}

/// A bar for each exchange, from its request to its response.
std::string timeline(const Trace& trace, std::int64_t lastMs, int& y) {
    std::string picture = sizedText(20, y + 20, "start", "Timeline", " font-weight=\"bold\"");
    y += 44;
    const auto x = [&](std::int64_t timeMs) {
        return BAR_LEFT + static_cast<int>(timeMs * BAR_WIDTH / std::max<std::int64_t>(lastMs, 1));
    };
    for (const TracedExchange& exchange : trace.exchanges) {
        const TracedMessage& request = trace.messages[exchange.request];
        const std::int64_t end = exchange.response ? trace.messages[*exchange.response].timeMs : request.timeMs;
        const bool isOpen = !exchange.response && request.startLine.rfind("POST ", 0) == 0;
        std::ostringstream bar;
        bar << "<rect x=\"" << x(request.timeMs) << "\" y=\"" << y - 11 << "\" width=\""
            << std::max(3, x(end) - x(request.timeMs)) << "\" height=\"14\" fill=\"" << (isOpen ? "#b71c1c" : "#1b5e9e")
            << "\"/>\n";
        const std::string duration = isOpen              ? "no response"
                                     : exchange.response ? std::to_string(end - request.timeMs) + " ms"
                                                         : "no reply (NOTIFY)";
        picture += sizedText(20, y, "start", shortened(request.startLine, 34)) + bar.str() +
                   sizedText(BAR_LEFT + BAR_WIDTH + 10, y, "start", duration);
        y += BAR_ROW;
    }
    return picture;
}

}  // namespace

std::string textOf(const Trace& trace) {
    std::string text;
    for (const Event& event : eventsOf(trace)) {
        text += "+" + std::to_string(event.timeMs) + " ms ";
        if (event.message != nullptr) {
            text += (event.message->isOutput ? "-> " : "<- ") + labelOf(*event.message);
            if (!event.message->id.empty()) text += " (" + clean(event.message->id) + ")";
        } else {
            text += event.line->level + " " + clean(event.line->text);
        }
        text += "\n";
    }
    return text;
}

std::string svgOf(const Trace& trace) {
    const std::vector<Event> events = eventsOf(trace);
    int y = 0;
    std::string picture = sequence(events, y);
    picture += timeline(trace, events.empty() ? 0 : events.back().timeMs, y);
    std::ostringstream out;
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << WIDTH << "\" height=\"" << y + 10
        << "\" viewBox=\"0 0 " << WIDTH << " " << y + 10 << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
        << picture << "</svg>\n";
    return out.str();
}

namespace {

/// What the log leaves open.
std::string notesOf(const Trace& trace) {
    const auto isAny = [&](auto is) { return std::any_of(trace.messages.begin(), trace.messages.end(), is); };
    std::string notes;
    if (isAny([](const TracedMessage& message) { return message.isStreamed && message.bodyBytes; })) {
        notes +=
            "<p>Some bodies were streamed. The log does not have their lengths: a line of such a body that looks like "
            "the beginning of a message is shown as one.</p>\n";
    }
    if (isAny([](const TracedMessage& message) { return message.isStreamed && !message.bodyBytes; })) {
        notes += "<p>Some bodies were streamed, and are not in the log: their sizes are not known.</p>\n";
    }
    return notes;
}

void writeDetails(std::ostream& out, const TracedMessage& message) {
    out << "<details><summary>" << escaped(message.clock) << (message.isOutput ? " &rarr; " : " &larr; ")
        << escaped(labelOf(message)) << "</summary><pre>";
    if (!message.id.empty()) out << "correlation id " << escaped(message.id) << "\n";
    for (const auto& [name, value] : message.headers) out << escaped(name) << ": " << escaped(value) << "\n";
    if (!message.headersOrBody.empty()) {
        out << "</pre><p>The log does not say whether these lines are headers, or the beginning of the body:</p><pre>";
    }
    for (const std::string& line : message.headersOrBody) out << escaped(line) << "\n";
    out << "</pre></details>\n";
}

}  // namespace

std::string htmlOf(const Trace& trace) {
    std::ostringstream out;
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>qvtp trace</title>\n"
        << "<style>body{font-family:sans-serif;margin:2em}summary{font-family:monospace}"
        << "pre{margin:.3em 0 1em 2em}</style></head><body>\n"
        << "<h1>" << trace.messages.size() << " messages, " << trace.exchanges.size() << " requests</h1>\n"
        << svgOf(trace) << notesOf(trace) << "<h2>Messages</h2>\n";
    for (const TracedMessage& message : trace.messages) writeDetails(out, message);
    out << "</body></html>\n";
    return out.str();
}

std::string jsonOf(const Trace& trace) {
    Json messages = Json::array(), exchanges = Json::array(), lines = Json::array();
    for (const TracedMessage& message : trace.messages) {
        Json one({{"ms", message.timeMs},
                  {"clock", message.clock},
                  {"direction", message.isOutput ? "output" : "input"},
                  {"id", message.id},
                  {"startLine", message.startLine},
                  {"headers", jsonOf(message.headers)},
                  {"bodyBytes", message.bodyBytes ? Json(*message.bodyBytes) : Json()}});
        if (message.isStreamed) one["streamed"] = true;
        if (!message.headersOrBody.empty()) one["headersOrBody"] = message.headersOrBody;
        messages.push_back(std::move(one));
    }
    for (const TracedExchange& exchange : trace.exchanges) {
        Json one{{"request", exchange.request}};
        if (exchange.response) {
            one["response"] = *exchange.response;
            one["ms"] = trace.messages[*exchange.response].timeMs - trace.messages[exchange.request].timeMs;
        }
        exchanges.push_back(one);
    }
    for (const TracedLine& line : trace.lines) {
        lines.push_back({{"ms", line.timeMs}, {"level", line.level}, {"text", line.text}});
    }
    return textOf(Json{{"messages", messages}, {"exchanges", exchanges}, {"lines", lines}});
}

}  // namespace qvtp::cli
