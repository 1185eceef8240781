// The parser module: all that knows the XML parser, apart from its two helpers.

#include <qvtp/Export.h>

#include "config/ConfigurationFile.h"
#include "config/ParserFunctions.h"
#include "config/XmlText.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PanicHandler.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <new>
#include <stdexcept>

namespace Quovane::Internal::Qvtp {

using xercesc::DOMElement;
using xercesc::DOMNamedNodeMap;
using xercesc::DOMNode;

namespace {

template <typename ParserException>
void reportMessage(const ParserCalls& calls, const ParserException& e) {
    calls.error(calls.context, XmlText::toUtf8(e.getMessage()).c_str());
}

/// Without it the parser keeps whatever it had read before an error. A document that is only invalid is kept, with a
/// line.
class StrictErrorHandler : public xercesc::HandlerBase {
  public:
    explicit StrictErrorHandler(const ParserCalls& calls) : calls_(calls) {}

    void error(const xercesc::SAXParseException& e) override { reportMessage(calls_, e); }
    void fatalError(const xercesc::SAXParseException& e) override { throw xercesc::SAXParseException(e); }

  private:
    const ParserCalls& calls_;
};

void reportElement(const DOMElement& element, const ParserCalls& calls) {
    calls.element(calls.context, XmlText::toUtf8(element.getNodeName()).c_str());
    const DOMNamedNodeMap* const attributes = element.getAttributes();
    for (XMLSize_t i = 0; i < attributes->getLength(); ++i) {
        const DOMNode& attribute = *attributes->item(i);
        calls.attribute(calls.context, XmlText::toUtf8(attribute.getNodeName()).c_str(),
                        XmlText::toUtf8(attribute.getNodeValue()).c_str());
    }
}

void reportElements(const DOMElement& root, const ParserCalls& calls) {
    for (const DOMNode* node = root.getFirstChild(); node != nullptr; node = node->getNextSibling()) {
        if (node->getNodeType() == DOMNode::ELEMENT_NODE) reportElement(static_cast<const DOMElement&>(*node), calls);
    }
}

void parseDocument(const char* path, const ParserCalls& calls) {
    StrictErrorHandler errorHandler(calls);
    xercesc::XercesDOMParser parser;
    parser.setValidationScheme(xercesc::XercesDOMParser::Val_Auto);
    parser.setDoNamespaces(true);
    parser.setErrorHandler(&errorHandler);
    parser.parse(ConfigurationFile(path, calls));
    reportElements(*parser.getDocument()->getDocumentElement(), calls);
}

/// What the parser library calls where it cannot go on. Its own one ends the process.
class Panic : public xercesc::PanicHandler {
  public:
    void panic(PanicReasons reason) override { throw std::runtime_error(getPanicReasonString(reason)); }
};

/// Ends at the exit of the process, or when the module goes: on Windows that is before the library goes, so the library
/// cannot see to it.
class ParserLibrary {
  public:
    explicit ParserLibrary(Panic& panic) {
        using xercesc::XMLUni;
        xercesc::XMLPlatformUtils::Initialize(XMLUni::fgXercescDefaultLocale, nullptr, &panic);
    }
    ParserLibrary(const ParserLibrary&) = delete;
    ParserLibrary& operator=(const ParserLibrary&) = delete;
    ~ParserLibrary() { xercesc::XMLPlatformUtils::Terminate(); }
};

/// A library whose start was given up half way takes itself for started. Nobody may use it, or start it again.
bool isUnusable = false;

void initialize(const ParserCalls& calls) {
    if (isUnusable) return;
    try {
        static Panic panic;
        static const ParserLibrary library(panic);
    } catch (const xercesc::XMLException& e) {
        reportMessage(calls, e);
    } catch (const std::runtime_error& e) {
        isUnusable = true;
        calls.error(calls.context, e.what());
    }
}

bool parse(const char* path, const ParserCalls& calls) {
    try {
        if (isUnusable) throw std::runtime_error("The parser could not be started.");
        parseDocument(path, calls);
        return true;
    } catch (const xercesc::XMLException& e) {
        reportMessage(calls, e);
    } catch (const xercesc::SAXException& e) {
        reportMessage(calls, e);
    } catch (const xercesc::DOMException& e) {
        reportMessage(calls, e);
    } catch (...) {
        calls.error(calls.context, nullptr);
    }
    return false;
}

/// The parser has a class of its own for a lack of memory, which no caller knows.
int toInteger(const char* value) {
    try {
        return xercesc::XMLString::parseInt(XmlText::fromUtf8(value).c_str());
    } catch (const xercesc::OutOfMemoryException&) {
        throw std::bad_alloc();
    }
}

constexpr ParserFunctions FUNCTIONS = {initialize, parse, toInteger};

}  // namespace

}  // namespace Quovane::Internal::Qvtp

extern "C" QVTP_API const Quovane::Internal::Qvtp::ParserFunctions* qvtpConfigParser1() {
    return &Quovane::Internal::Qvtp::FUNCTIONS;
}
