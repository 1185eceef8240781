#pragma once

#include "common/StringUtils.h"
#include "common/WireSyntax.h"

#include <cstddef>
#include <string_view>

/// How the texts of a header are read, whoever keeps them.
namespace Quovane::Internal::Qvtp::HeaderText {

/// What also counts as white space at the ends of a name, if there is any of the usual kind.
inline constexpr std::string_view ALL_WHITE_SPACE = " \t\r\n\v\f";

/// The name to keep. Looked at from both ends first, since most names are trimmed.
inline std::string_view nameOf(std::string_view name) {
    using Quovane::Soa::Internal::Common::StringUtils;
    return WireSyntax::isTrimmed(name) ? name : StringUtils::trim(name, ALL_WHITE_SPACE);
}

/// Removes the text up to its first comma, and gives it without white space at its ends.
inline std::string_view takeValue(std::string_view& valueText) {
    const std::size_t end = valueText.find(WireSyntax::DELIMITER);
    const std::string_view value = WireSyntax::trimmed(valueText.substr(0, end));
    valueText.remove_prefix(end == std::string_view::npos ? valueText.size() : end + 1);
    return value;
}

/// Splits the text at its commas and calls `action` with each piece that is not empty once it is trimmed.
template <typename Action>
void forEachValueOf(std::string_view valueText, const Action& action) {
    while (!valueText.empty()) {
        const std::string_view value = takeValue(valueText);
        if (!value.empty()) action(value);
    }
}

/// The first of these pieces, or an empty text.
inline std::string_view firstValueOf(std::string_view valueText) {
    std::string_view value;
    while (value.empty() && !valueText.empty()) value = takeValue(valueText);
    return value;
}

}  // namespace Quovane::Internal::Qvtp::HeaderText
