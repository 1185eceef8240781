#pragma once

#include "common/StringUtils.h"
#include "common/WireSyntax.h"

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

/// Splits the text at its commas and calls `action` with each piece that is not empty once it is trimmed.
template <typename Action>
void forEachValueOf(std::string_view valueText, const Action& action) {
    for (bool isLast = false; !isLast;) {
        const std::size_t end = valueText.find(WireSyntax::DELIMITER);
        isLast = end == std::string_view::npos;
        const std::string_view value = WireSyntax::trimmed(valueText.substr(0, end));
        if (!value.empty()) action(value);
        if (!isLast) valueText.remove_prefix(end + 1);
    }
}

}  // namespace Quovane::Internal::Qvtp::HeaderText
