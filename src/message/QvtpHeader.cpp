#include "message/QvtpHeader.h"

#include "common/StringUtils.h"
#include "common/WireSyntax.h"

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

QvtpHeader::~QvtpHeader() = default;

std::string QvtpHeader::getValue() const {
    return values_.empty() ? std::string() : values_.front();
}

void QvtpHeader::setName(const std::string& name) {
    const bool isTrimmed = name.empty() || (!isSeparator(name.front()) && !isSeparator(name.back()));
    name_ = isTrimmed ? name : StringUtils::trim(name);
}

void QvtpHeader::addValues(const std::string& valueText) {
    std::string_view rest = valueText;
    for (;;) {
        const std::size_t start = rest.find_first_not_of(WHITE_SPACE);
        if (start == std::string_view::npos) return;
        const std::size_t end = rest.find(DELIMITER, start);
        const std::string_view piece = StringUtils::trim(rest.substr(start, end - start), WHITE_SPACE);
        if (!piece.empty()) values_.emplace_back(piece);
        if (end == std::string_view::npos) return;
        rest.remove_prefix(end + 1);
    }
}

void QvtpHeader::setValue(const std::string& valueText) {
    values_.clear();
    addValues(valueText);
}

}  // namespace Quovane::Internal::Qvtp
