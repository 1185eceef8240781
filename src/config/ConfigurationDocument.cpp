#include "config/ConfigurationDocument.h"

#include "common/System.h"
#include "common/Utf8String.h"
#include "config/ParserModule.h"
#include "logging/Log.h"

#include <string_view>
#include <utility>

namespace Quovane::Internal::Qvtp {

using Quovane::Qvtp::ClientOptions;
using Quovane::Qvtp::QvtpClient;
using Quovane::Qvtp::QvtpServer;
using Quovane::Qvtp::ServerOptions;

namespace {

constexpr char FILE_VARIABLE[] = "QvtpConfigurationFile";
constexpr char DEFAULT_FILE[] = "QvtpConfig.xml";

std::string configurationPath() {
    return System::environmentVariable(FILE_VARIABLE).value_or(DEFAULT_FILE);
}

/// For the parser, and to compare with what it found.
std::string wellFormed(const std::string& text) {
    std::string result;
    Quovane::Soa::Common::Xml::Utf8String::decode(text, result);
    return result;
}

using Attribute = ConfigurationDocument::Attribute;
using Entry = ConfigurationDocument::Entry;

/// An absent attribute is empty.
std::string_view valueOf(const Entry& entry, const char* name) {
    for (const Attribute& attribute : entry.attributes) {
        if (attribute.name == name) return attribute.value;
    }
    return {};
}

/// The first entry for this function and component, or null.
const Entry* findEntry(const std::vector<Entry>& entries, const char* kind, const std::string& function,
                       const std::string& component) {
    const std::string functionText = wellFormed(function);
    const std::string componentText = wellFormed(component);
    for (const Entry& entry : entries) {
        // As far as a zero, which no document contains.
        if (entry.kind == kind && valueOf(entry, "function") == functionText.c_str() &&
            valueOf(entry, "component") == componentText.c_str()) {
            return &entry;
        }
    }
    return nullptr;
}

template <typename Option>
struct Setting {
    const char* attribute;
    Option option;
};

constexpr Setting<ClientOptions> CLIENT_SETTINGS[] = {
    {"connect_timeout", QvtpClient::CONNECTION_TIMEOUT},
    {"stale_timeout", QvtpClient::IDLE_TIMEOUT},
    {"buffer_size", QvtpClient::BUFFER_SIZE},
};

constexpr Setting<ServerOptions> SERVER_SETTINGS[] = {
    {"max_request_processors", QvtpServer::MAX_REQUEST_PROCESSORS},
    {"accept_timeout", QvtpServer::ACCEPT_TIMEOUT},
    {"idle_timeout", QvtpServer::IDLE_TIMEOUT},
    {"receive_timeout", QvtpServer::RECEIVE_TIMEOUT},
    {"buffer_size", QvtpServer::BUFFER_SIZE},
};

/// Sets the option that belongs to the attribute; false if none does.
template <typename Target, typename Settings>
bool applySetting(Target& target, const Settings& settings, const Attribute& attribute, const ParserFunctions& parser) {
    for (const auto& setting : settings) {
        if (attribute.name != setting.attribute) continue;
        target.setOption(setting.option, parser.toInteger(attribute.value.c_str()));
        return true;
    }
    return false;
}

/// The name's address is logged, not the name: log readers know the line in this form.
void logUnrecognised(const char* kind, const std::string& name) {
    logError([&] {
        return text("Unrecognised ", kind, " configuration attribute ", static_cast<const void*>(name.data()));
    });
}

void applyAttribute(QvtpClient& client, const Attribute& attribute, const ParserFunctions& parser) {
    if (applySetting(client, CLIENT_SETTINGS, attribute, parser)) return;
    if (attribute.name == "read_timeout") {
        logWarn("Unsupported C++ QvtpClient option: read_timeout ");
        return;
    }
    logUnrecognised("QvtpClient", attribute.name);
}

void applyAttribute(QvtpServer& server, const Attribute& attribute, const ParserFunctions& parser) {
    if (applySetting(server, SERVER_SETTINGS, attribute, parser)) return;
    logUnrecognised("QvtpServer", attribute.name);
}

/// What the parser calls while it reads the file at `path` into `entries`.
struct Reading {
    const std::string& path;
    std::vector<Entry> entries;

    static Reading& of(void* context) { return *static_cast<Reading*>(context); }

    static std::FILE* open(void* context) { return System::openFile(of(context).path).release(); }
    static void error(void*, const char* message) {
        logError(message != nullptr ? message : "Unexpected Exception while parsing the Qvtp configuration file");
    }
    static void element(void* context, const char* name) { of(context).entries.push_back({name, {}}); }
    static void attribute(void* context, const char* name, const char* value) {
        of(context).entries.back().attributes.push_back({name, value});
    }

    ParserCalls calls() { return {this, open, error, element, attribute}; }
};

}  // namespace

ConfigurationDocument::ConfigurationDocument() : path_(configurationPath()), isThere_(System::fileExists(path_)) {}

void ConfigurationDocument::load() {
    try {
        if (isThere_) startParser();
        if (!isThere_) {
            logError([&] { return "Cannot find qvtp Configuration file: " + path_; });
            return;
        }
        logInfo([&] { return "Found qvtp configuration file: " + path_; });
        if (parser_ == nullptr) {
            logError([&] { return "Cannot load the parser of the qvtp Configuration file: " + parserFailure_; });
            return;
        }
        read();
    } catch (...) {
        Reading::error(nullptr, nullptr);
    }
}

/// Only where there is a file: the parser and the libraries that it needs make a process noticeably bigger.
void ConfigurationDocument::startParser() {
    const std::filesystem::path modulePath = parserPath();
    const ParserModule module = loadParser(modulePath);
    if (module.functions == nullptr) {
        parserFailure_ = modulePath.u8string() + ": " + module.failure;
        return;
    }
    module.functions->initialize(Reading{path_, {}}.calls());
    parser_ = module.functions;
}

void ConfigurationDocument::read() {
    Reading reading{path_, {}};
    isRead_ = parser_->parse(wellFormed(path_).c_str(), reading.calls());
    entries_ = std::move(reading.entries);
}

template <typename Target>
void ConfigurationDocument::applyEntry(Target& target, const char* kind, const std::string& function,
                                       const std::string& component) const {
    if (!isRead_) {
        logDebug("QvtpConfiguration not available.");
        return;
    }
    const Entry* const entry = findEntry(entries_, kind, function, component);
    if (entry == nullptr) return;
    for (const Attribute& attribute : entry->attributes) {
        if (attribute.name != "function" && attribute.name != "component") {
            applyAttribute(target, attribute, *parser_);
        }
    }
}

void ConfigurationDocument::apply(QvtpClient& client, const std::string& function, const std::string& component) const {
    applyEntry(client, "QvtpClient", function, component);
}

void ConfigurationDocument::apply(QvtpServer& server, const std::string& function, const std::string& component) const {
    applyEntry(server, "QvtpServer", function, component);
}

}  // namespace Quovane::Internal::Qvtp
