#include "cli/ConfigCheck.h"

#include "cli/CommunicationLog.h"
#include "cli/Terminal.h"

#include <qvtp/client/QvtpClient.h>
#include <qvtp/config/QvtpConfig.h>
#include <qvtp/server/QvtpServer.h>

#include <Poco/Environment.h>
#include <Poco/String.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>
#include <tuple>
#include <type_traits>
#include <utility>

namespace qvtp::cli {

namespace {

namespace exact = Quovane::Qvtp;

/// What a value below its range works as. Nothing is above: every int is taken.
struct Range {
    int least;
    const char* below;
    bool hasZero = true;  // though it is below
};

struct Setting {
    const char* attribute;
    int option;
    Range range;
};

constexpr Range SIZE = {1, "works as 1", false};
constexpr Range TIME = {0, "works as 24 to 50 days; without limit is 0"};
constexpr Range IDLE_TIME = {0, "works as 0: no connection is used twice"};
constexpr Range WORKERS = {3, "works as 3; without limit is 0"};

using Settings = std::vector<Setting>;

const Settings& settingsOf(const std::string& kind) {
    using exact::QvtpClient;
    using exact::QvtpServer;
    static const Settings client = {{"connect_timeout", QvtpClient::CONNECTION_TIMEOUT, TIME},
                                    {"stale_timeout", QvtpClient::IDLE_TIMEOUT, IDLE_TIME},
                                    {"buffer_size", QvtpClient::BUFFER_SIZE, SIZE}};
    static const Settings server = {{"max_request_processors", QvtpServer::MAX_REQUEST_PROCESSORS, WORKERS},
                                    {"accept_timeout", QvtpServer::ACCEPT_TIMEOUT, TIME},
                                    {"idle_timeout", QvtpServer::IDLE_TIMEOUT, TIME},
                                    {"receive_timeout", QvtpServer::RECEIVE_TIMEOUT, TIME},
                                    {"buffer_size", QvtpServer::BUFFER_SIZE, SIZE}};
    return kind == "QvtpClient" ? client : server;
}

bool isEntry(const std::string& name) {
    return name == "QvtpClient" || name == "QvtpServer";
}

const Setting* findSetting(const std::string& kind, const std::string& attribute) {
    const Settings& settings = settingsOf(kind);
    const auto found = std::find_if(settings.begin(), settings.end(),
                                    [&](const Setting& setting) { return attribute == setting.attribute; });
    return found == settings.end() ? nullptr : &*found;
}

/// How many characters have to be changed, added or removed (Levenshtein's distance).
std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t corner = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t change = corner + (a[i] == b[j] ? 0 : 1);
            corner = std::exchange(row[j + 1], std::min({change, row[j] + 1, row[j + 1] + 1}));
        }
    }
    return row.back();
}

bool isLike(const std::string& a, const std::string& b) {
    return distance(Poco::toLower(a), Poco::toLower(b)) <= 2;
}

std::string advice(const std::string& kind, const std::string& attribute) {
    for (const Setting& setting : settingsOf(kind)) {
        if (isLike(attribute, setting.attribute)) return std::string(" Is ") + setting.attribute + " meant?";
    }
    for (const char* name : {"function", "component"}) {
        if (isLike(attribute, name)) return std::string(" Is ") + name + " meant?";
    }
    const std::string other = kind == "QvtpClient" ? "QvtpServer" : "QvtpClient";
    return findSetting(other, attribute) != nullptr ? " " + other + " has it." : "";
}

template <typename Target>
CheckedEntry entryOf(const Target& target, const std::string& kind, const std::string& function,
                     const std::string& component) {
    CheckedEntry entry{kind, function, component, {}, {}, true};
    for (const Setting& setting : settingsOf(kind)) {
        using Option = std::conditional_t<std::is_same_v<Target, exact::QvtpClient>, exact::QvtpClient::ClientOptions,
                                          exact::QvtpServer::ServerOptions>;
        entry.options.push_back(
            {setting.attribute, target.getIntegerOption(static_cast<Option>(setting.option)), false});
    }
    return entry;
}

/// A name that no pipe can have: this server is there for its options.
constexpr char NO_PIPE_NAME[] = "";

/// Applies the file's entry for these names; nothing if there is none, or no file.
CheckedEntry appliedEntry(const std::string& kind, const std::string& function, const std::string& component) {
    exact::QvtpClient client;
    exact::QvtpServer server(NO_PIPE_NAME, 1);
    const bool isClient = kind == "QvtpClient";
    try {
        exact::QvtpConfig& config = exact::QvtpConfig::getInstance();
        if (isClient) config.setQvtpClientOptions(client, function, component);
        if (!isClient) config.setQvtpServerOptions(server, function, component);
    } catch (const std::exception&) {
        throw;       // memory has run out, which the file is not to blame for
    } catch (...) {  // the parser's NumberFormatException, which has no base class that is known here
        return {kind, function, component, {}, {}, false};
    }
    return isClient ? entryOf(client, kind, function, component) : entryOf(server, kind, function, component);
}

EffectiveOption* findOption(CheckedEntry& entry, const std::string& name) {
    for (EffectiveOption& option : entry.options) {
        if (option.name == name) return &option;
    }
    return nullptr;
}

struct Complaint {
    bool isError = false;
    std::string text;  // empty: nothing is wrong
};

bool isNumber(const std::string& text) {
    const std::size_t digits = !text.empty() && (text[0] == '+' || text[0] == '-') ? 1 : 0;
    return text.size() > digits && text.find_first_not_of("0123456789", digits) == text.npos;
}

/// `option` is what the entry leaves; null if that is not known.
Complaint complaintAbout(const Setting& setting, const std::string& value, const EffectiveOption* option) {
    const std::string text = Poco::trim(value);
    if (!isNumber(text)) {
        return {true, "\"" + value + "\" is no number."};
    }
    const long long wanted = std::strtoll(text.c_str(), nullptr, 10);  // the nearest one if there are too many digits
    if (wanted < std::numeric_limits<int>::min() || wanted > std::numeric_limits<int>::max()) {
        const std::string result = option == nullptr ? "" : ": the option gets " + std::to_string(option->value);
        return {true, text + " does not fit into 32 bits" + result + "."};
    }
    const bool isUnlimited = wanted == 0 && setting.range.hasZero;
    if (wanted >= setting.range.least || isUnlimited) return {};
    return {false, text + " " + setting.range.below + "."};
}

/// Has the library read the file, and returns its lines.
std::string readByTheLibrary() {
    using exact::QvtpMessage, Quovane::Qvtp::LoggingLevel, Quovane::Qvtp::CommunicationLevel;
    std::FILE* const file = Terminal::openTemporaryFile();
    QvtpMessage::setLoggingLevel(file, LoggingLevel::DEBUG, nullptr, CommunicationLevel::OFF);
    exact::QvtpClient client;
    try {
        exact::QvtpConfig::getInstance().setQvtpClientOptions(client, "", "");  // without a configuration it says so
    } catch (...) {  // an exception of the parser's, which the check of that entry reports
    }
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    if (file == nullptr) throw Error(ErrorKind::misuse, "There is no room for temporary files.");
    std::rewind(file);
    std::string lines;
    char part[4096];
    for (std::size_t size = 0; (size = std::fread(part, 1, sizeof(part), file)) > 0;) lines.append(part, size);
    std::fclose(file);
    return lines;
}

/// The checks of one file, which add to its report.
class Check {
  public:
    explicit Check(ConfigReport& report) : report_(report) {}

    /// An entry after one for the same names is checked, but never used.
    void entry(const ConfigElement& element) {
        const std::string function = element.valueOf("function"), component = element.valueOf("component");
        const auto [first, isFirst] = places_.try_emplace({element.name, function, component}, element.place);
        if (!isFirst) {
            find(element.place, true,
                 "This entry is never used: line " + std::to_string(first->second.line) +
                     " has one for the same function and component.");
        }
        CheckedEntry entry;  // of one that is never used there is nothing to show
        if (isFirst) entry = appliedEntry(element.name, function, component);
        entry.place = element.place;
        if (!isKnown(function) || !isKnown(component)) entry.options.clear();  // the library has it under other names
        if (!entry.isRight) {
            find(element.place, true,
                 "Applying this entry throws NumberFormatException, which ends a program that does not catch it.");
        }
        for (const ConfigAttribute& attribute : element.attributes) this->attribute(element.name, attribute, entry);
        if (!isFirst) return;
        report_.entries.push_back(std::move(entry));
    }

    void otherElement(const ConfigElement& element) {
        if (isEntry(element.name)) {
            find(element.place, false, element.name + " is no child of the root element: it is ignored.");
            return;
        }
        if (element.depth != 1) return;
        for (const char* kind : {"QvtpClient", "QvtpServer"}) {
            if (!isLike(element.name, kind)) continue;
            find(element.place, true, element.name + " is no entry, and ignored. Is " + kind + " meant?");
            return;
        }
    }

    /// A document that the library has read.
    void document(const ConfigText& text) {
        if (!text.isReadable()) {
            find({}, false, "No entry is shown: the file is in an encoding whose markup is not ASCII.");
        }
        hasEntities_ = text.entities() || !text.references().empty();
        if (text.entities()) {
            find(*text.entities(), false, "The document declares entities: what they stand for is not shown here.");
        }
        for (const ConfigElement& element : text.elements()) {
            if (element.depth == 1 && isEntry(element.name)) {
                entry(element);
            } else {
                otherElement(element);
            }
        }
        if (text.end()) find(*text.end(), false, "No entries from here on are shown: this markup is not understood.");
    }

    /// The parser reads these files too, wherever a program runs, and gives up where it cannot.
    void references(const ConfigText& text) {
        for (const ConfigReference& one : text.references()) {
            std::string line = one.isGrammar ? "The document type" : "This entity";
            line.append(" refers to \"").append(one.name).append("\", which programs read too");
            if (!one.isGrammar) line.append(" where it is used");
            line.append(": what that declares is not shown here, and without it the whole file is refused.");
            find(one.place, false, line);
        }
    }

    void find(const Place& place, bool isError, const std::string& text) {
        report_.findings.push_back({place, isError, text});
    }

  private:
    void attribute(const std::string& kind, const ConfigAttribute& attribute, CheckedEntry& entry) {
        if (attribute.name == "function" || attribute.name == "component") return;
        EffectiveOption* const option = findOption(entry, attribute.name);
        if (option != nullptr) option->isSet = true;
        if (kind == "QvtpClient" && attribute.name == "read_timeout") {
            find(attribute.place, false, "read_timeout is not supported, and skipped.");
        } else if (const Setting* const setting = findSetting(kind, attribute.name); setting == nullptr) {
            const std::string text = kind + " has no attribute \"" + attribute.name + "\": it is skipped.";
            find(attribute.place, true, text + advice(kind, attribute.name));
        } else if (const Complaint one = complaintAbout(*setting, attribute.value, option);
                   !one.text.empty() && isKnown(attribute.value)) {
            find(attribute.place, one.isError, attribute.name + ": " + one.text);
        }
    }

    /// False if an entity may stand there.
    bool isKnown(const std::string& value) const { return !hasEntities_ || value.find('&') == value.npos; }

    ConfigReport& report_;
    bool hasEntities_ = false;
    std::map<std::tuple<std::string, std::string, std::string>, Place> places_;
};

/// Where the file is that the library refuses with this line.
Place placeOf(const std::string& line, const ConfigText& text) {
    for (const ConfigReference& reference : text.references()) {
        const std::string file = reference.name.substr(reference.name.find_last_of('/') + 1);
        if (!file.empty() && line.find(file + "'") != line.npos) return reference.place;
    }
    return text.cut() ? *text.cut() : text.end().value_or(Place());
}

std::string contentOf(const std::string& path) {
    const auto file = std::filesystem::u8path(path);
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(file, error);
    const bool isThere = std::filesystem::exists(status);
    if (isThere && !std::filesystem::is_regular_file(status) && !std::filesystem::is_directory(status)) {
        throw Error(ErrorKind::misuse,
                    "Cannot check " + path + ": it is no regular file, and has to be read twice. Save it first.");
    }
    std::ifstream in;
    if (std::filesystem::is_regular_file(status)) in.open(file, std::ios::binary);
    if (!in.is_open()) throw Error(ErrorKind::misuse, "Cannot read " + path + ".");
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

ConfigReport checkConfig(const std::string& path) {
    const ConfigText text(contentOf(path));
    Poco::Environment::set("QvtpConfigurationFile", path);
    const std::string lines = readByTheLibrary();
    std::istringstream stream(lines);
    Trace trace;
    readDiagnosticLog(stream, trace);

    ConfigReport report{path, lines.find("QvtpConfiguration not available.") == lines.npos, {}, {}};
    Check check(report);
    for (const TracedLine& line : trace.lines) {
        if (line.text.rfind("Unrecognised", 0) == 0) continue;
        check.find(report.isRead ? Place() : placeOf(line.text, text), line.level == "ERROR", line.text);
    }
    check.references(text);
    if (report.isRead) check.document(text);
    return report;
}

CheckedEntry effectiveEntry(const std::string& kind, const std::string& function, const std::string& component) {
    return appliedEntry(kind, function, component);
}

}  // namespace qvtp::cli
