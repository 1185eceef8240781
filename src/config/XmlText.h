#pragma once

#include <xercesc/util/TransService.hpp>
#include <xercesc/util/XMLString.hpp>

#include <string>

/// Conversions between UTF-8 and the parser's UTF-16. For want of memory they throw
/// std::bad_alloc, not the parser's own exception.
namespace Quovane::Internal::Qvtp::XmlText {

/// The text has to be well-formed.
std::basic_string<XMLCh> fromUtf8(const std::string& text);
/// A null pointer is an empty string.
std::string toUtf8(const XMLCh* text);

}  // namespace Quovane::Internal::Qvtp::XmlText
