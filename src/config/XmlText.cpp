#include "config/XmlText.h"

#include <xercesc/util/OutOfMemoryException.hpp>

#include <new>

namespace Quovane::Internal::Qvtp::XmlText {

namespace {

constexpr char UTF8[] = "UTF-8";

}  // namespace

std::basic_string<XMLCh> fromUtf8(const std::string& text) {
    const auto* bytes = reinterpret_cast<const XMLByte*>(text.data());
    try {
        const xercesc::TranscodeFromStr converted(bytes, text.size(), UTF8);
        return converted.str();
    } catch (const xercesc::OutOfMemoryException&) {
        throw std::bad_alloc();
    }
}

std::string toUtf8(const XMLCh* text) {
    if (text == nullptr) return {};
    try {
        const xercesc::TranscodeToStr converted(text, UTF8);
        return reinterpret_cast<const char*>(converted.str());
    } catch (const xercesc::OutOfMemoryException&) {
        throw std::bad_alloc();
    }
}

}  // namespace Quovane::Internal::Qvtp::XmlText
