#include "message/QvtpHeader.h"

#include "common/StringUtils.h"
#include "common/WireSyntax.h"

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

namespace {

using namespace WireSyntax;

/// Looked at from both ends first, since most names are trimmed.
std::string asName(std::string_view name) {
    const bool isTrimmed = name.empty() || (!isWhiteSpace(name.front()) && !isWhiteSpace(name.back()));
    return isTrimmed ? std::string(name) : StringUtils::trim(name);
}

}  // namespace

QvtpHeader::QvtpHeader(std::string_view name) : name_(asName(name)) {}

QvtpHeader::QvtpHeader(const std::string& name, const std::string& valueText) : name_(StringUtils::trim(name)) {
    addValues(valueText);
}

std::vector<std::string> QvtpHeader::getValues() const {
    std::vector<std::string> values;
    forEachValue([&](const std::string& value) { values.push_back(value); });
    return values;
}

void QvtpHeader::setName(std::string_view name) {
    name_ = asName(name);
}

void QvtpHeader::addValues(std::string_view valueText) {
    std::size_t end = valueText.find(DELIMITER);
    while (end != std::string_view::npos) {
        addPiece(valueText.substr(0, end));
        valueText.remove_prefix(end + 1);
        end = valueText.find(DELIMITER);
    }
    addPiece(valueText);
}

void QvtpHeader::addPiece(std::string_view text) {
    const std::string_view value = trimmed(text);
    if (value.empty()) return;
    if (hasValue()) {
        more_.emplace_back(value);
    } else {
        first_.assign(value);
    }
}

void QvtpHeader::setValue(std::string_view valueText) {
    first_.clear();
    more_.clear();
    addValues(valueText);
}

}  // namespace Quovane::Internal::Qvtp
