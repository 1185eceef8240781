#include <qvtp/config/QvtpConfig.h>

#include "common/System.h"
#include "config/ConfigurationFile.h"
#include "config/ParserMemory.h"
#include "config/XmlText.h"
#include "logging/Log.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLString.hpp>

namespace Quovane::Qvtp {

using namespace Quovane::Internal::Qvtp;
using xercesc::DOMElement;
using xercesc::DOMNamedNodeMap;
using xercesc::DOMNode;
using xercesc::XMLString;

namespace {

constexpr char FILE_VARIABLE[] = "QvtpConfigurationFile";
constexpr char DEFAULT_FILE[] = "QvtpConfig.xml";

template <typename ParserException>
void logMessage(const ParserException& e) {
    logError([&] { return XmlText::toUtf8(e.getMessage()); });
}

/// Without it the parser keeps whatever it had read before an error. A document that is only invalid is kept, with a
/// line.
class StrictErrorHandler : public xercesc::HandlerBase {
  public:
    void error(const xercesc::SAXParseException& e) override { logMessage(e); }
    void fatalError(const xercesc::SAXParseException& e) override { throw xercesc::SAXParseException(e); }
};

std::string configurationPath() {
    return System::environmentVariable(FILE_VARIABLE).value_or(DEFAULT_FILE);
}

bool isNamed(const XMLCh* name, const char* expected) {
    return XMLString::equals(name, XmlText::fromUtf8(expected).c_str());
}

/// The first entry for this function and component among the root's children, or null.
const DOMElement* findEntry(const DOMElement& root, const char* kind, const std::string& function,
                            const std::string& component) {
    const auto kindText = XmlText::fromUtf8(kind);
    const auto functionText = XmlText::fromUtf8(function);
    const auto componentText = XmlText::fromUtf8(component);
    const auto functionName = XmlText::fromUtf8("function");
    const auto componentName = XmlText::fromUtf8("component");
    for (const DOMNode* node = root.getFirstChild(); node != nullptr; node = node->getNextSibling()) {
        if (node->getNodeType() != DOMNode::ELEMENT_NODE) continue;
        const auto* element = static_cast<const DOMElement*>(node);
        if (XMLString::equals(element->getNodeName(), kindText.c_str()) &&
            XMLString::equals(element->getAttribute(functionName.c_str()), functionText.c_str()) &&
            XMLString::equals(element->getAttribute(componentName.c_str()), componentText.c_str())) {
            return element;
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
bool applySetting(Target& target, const Settings& settings, const DOMNode& attribute) {
    for (const auto& setting : settings) {
        if (!isNamed(attribute.getNodeName(), setting.attribute)) continue;
        target.setOption(setting.option, XMLString::parseInt(attribute.getNodeValue()));
        return true;
    }
    return false;
}

/// The name's address is logged, not the name: log readers know the line in this form.
void logUnrecognised(const char* kind, const XMLCh* name) {
    logError([&] { return text("Unrecognised ", kind, " configuration attribute ", static_cast<const void*>(name)); });
}

void applyAttribute(QvtpClient& client, const DOMNode& attribute) {
    if (applySetting(client, CLIENT_SETTINGS, attribute)) return;
    if (isNamed(attribute.getNodeName(), "read_timeout")) {
        logWarn("Unsupported C++ QvtpClient option: read_timeout ");
        return;
    }
    logUnrecognised("QvtpClient", attribute.getNodeName());
}

void applyAttribute(QvtpServer& server, const DOMNode& attribute) {
    if (applySetting(server, SERVER_SETTINGS, attribute)) return;
    logUnrecognised("QvtpServer", attribute.getNodeName());
}

void initializeParser() {
    try {
        xercesc::XMLPlatformUtils::Initialize();
    } catch (const xercesc::XMLException& e) {
        logMessage(e);
    }
}

template <typename Target>
void applyEntry(Target& target, const DOMElement& entry) {
    const DOMNamedNodeMap* const attributes = entry.getAttributes();
    for (XMLSize_t i = 0; i < attributes->getLength(); ++i) {
        const DOMNode& attribute = *attributes->item(i);
        const XMLCh* const name = attribute.getNodeName();
        if (!isNamed(name, "function") && !isNamed(name, "component")) applyAttribute(target, attribute);
    }
}

}  // namespace

struct QvtpConfig::Document {
    xercesc::DOMDocument* document = nullptr;  // owned by the parser
    DOMElement* root = nullptr;                // owned by the document; null: no configuration
    StrictErrorHandler errorHandler;           // used by the parser
    std::unique_ptr<xercesc::XercesDOMParser> parser;

    template <typename Target>
    void apply(Target& target, const char* kind, const std::string& function, const std::string& component) const {
        if (root == nullptr) {
            logDebug("QvtpConfiguration not available.");
            return;
        }
        if (const DOMElement* entry = findEntry(*root, kind, function, component)) applyEntry(target, *entry);
    }
};

QvtpConfig& QvtpConfig::getInstance() {
    static QvtpConfig instance;
    return instance;
}

QvtpConfig::QvtpConfig() : document_(std::make_unique<Document>()) {
    // An initialisation that fails half-way can neither be used nor taken back: the parser library is not made for it.
    const ParserMemory reserve;
    initializeParser();
    loadConfigFile();
}

QvtpConfig::~QvtpConfig() {
    document_.reset();
    xercesc::XMLPlatformUtils::Terminate();
}

void QvtpConfig::loadConfigFile() {
    try {
        const std::string path = configurationPath();
        if (!System::fileExists(path)) {
            logError([&] { return "Cannot find qvtp Configuration file: " + path; });
            return;
        }
        logInfo([&] { return "Found qvtp configuration file: " + path; });
        document_->parser = std::make_unique<xercesc::XercesDOMParser>();
        xercesc::XercesDOMParser& parser = *document_->parser;
        parser.setValidationScheme(xercesc::XercesDOMParser::Val_Auto);
        parser.setDoNamespaces(true);
        parser.setErrorHandler(&document_->errorHandler);
        parser.parse(ConfigurationFile(path));
        document_->document = parser.getDocument();
        document_->root = document_->document->getDocumentElement();
    } catch (const xercesc::XMLException& e) {
        logMessage(e);
    } catch (const xercesc::SAXException& e) {
        logMessage(e);
    } catch (const xercesc::DOMException& e) {
        logMessage(e);
    } catch (...) {
        logError("Unexpected Exception while parsing the Qvtp configuration file");
    }
}

void QvtpConfig::setQvtpClientOptions(QvtpClient& client, const std::string& function, const std::string& component) {
    document_->apply(client, "QvtpClient", function, component);
}

void QvtpConfig::setQvtpServerOptions(QvtpServer& server, const std::string& function, const std::string& component) {
    document_->apply(server, "QvtpServer", function, component);
}

}  // namespace Quovane::Qvtp
