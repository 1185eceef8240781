#include "message/QvtpHeader.h"

#include "common/StringUtils.h"
#include "common/WireSyntax.h"

#include <algorithm>
#include <string_view>

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

namespace {

using namespace WireSyntax;

bool isSeparator(char c) {
    return WHITE_SPACE.find(c) != std::string_view::npos;
}

}  // namespace

QvtpHeader::QvtpHeader() = default;

QvtpHeader::QvtpHeader(const std::string& name, const std::string& valueText) : name_(StringUtils::trim(name)) {
    addValues(valueText);
}

QvtpHeader::QvtpHeader(const QvtpHeader& other) = default;

QvtpHeader& QvtpHeader::operator=(const QvtpHeader& other) = default;

QvtpHeader::QvtpHeader(QvtpHeader&& other) noexcept = default;

QvtpHeader& QvtpHeader::operator=(QvtpHeader&& other) noexcept = default;

QvtpHeader::~QvtpHeader() = default;

std::vector<std::string> QvtpHeader::getValues() const {
    std::vector<std::string> values;
    forEachValue([&](const std::string& value) { values.push_back(value); });
    return values;
}

void QvtpHeader::setName(std::string_view name) {
    const bool isTrimmed = name.empty() || (!isSeparator(name.front()) && !isSeparator(name.back()));
    if (isTrimmed) {
        name_ = name;
    } else {
        name_ = StringUtils::trim(name);
    }
}

void QvtpHeader::addValue(std::string_view value) {
    if (hasValue_) {
        more_.emplace_back(value);
        return;
    }
    first_ = value;
    hasValue_ = true;
}

void QvtpHeader::addValues(std::string_view valueText) {
    std::size_t start = 0;
    while (start <= valueText.size()) {
        const std::size_t end = std::min(valueText.find(DELIMITER, start), valueText.size());
        const std::string_view piece = StringUtils::trim(valueText.substr(start, end - start), WHITE_SPACE);
        if (!piece.empty()) addValue(piece);
        start = end + 1;
    }
}

void QvtpHeader::setValue(std::string_view valueText) {
    first_.clear();
    more_.clear();
    hasValue_ = false;
    addValues(valueText);
}

}  // namespace Quovane::Internal::Qvtp
