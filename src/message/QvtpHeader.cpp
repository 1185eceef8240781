#include "message/QvtpHeader.h"

#include "common/StringUtils.h"
#include "message/HeaderText.h"

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

QvtpHeader::QvtpHeader(std::string_view name) : name_(HeaderText::nameOf(name)) {}

QvtpHeader::QvtpHeader(const std::string& name, const std::string& valueText) : name_(StringUtils::trim(name)) {
    addValues(valueText);
}

std::vector<std::string> QvtpHeader::getValues() const {
    std::vector<std::string> values;
    forEachValue([&](const std::string& value) { values.push_back(value); });
    return values;
}

void QvtpHeader::setName(std::string_view name) {
    name_ = HeaderText::nameOf(name);
}

void QvtpHeader::addValues(std::string_view valueText) {
    HeaderText::forEachValueOf(valueText, [&](std::string_view value) {
        if (hasValue()) {
            more_.emplace_back(value);
        } else {
            first_.assign(value);
        }
    });
}

void QvtpHeader::setValue(std::string_view valueText) {
    first_.clear();
    more_.clear();
    addValues(valueText);
}

}  // namespace Quovane::Internal::Qvtp
