#pragma once

#include <locale>
#include <sstream>
#include <string>

namespace Quovane::Internal::Qvtp {

/// Streams its arguments one after another with default formatting. The classic locale keeps numbers free of the
/// digit grouping that an application may have put into the global locale. Throws std::bad_alloc rather than give a
/// part of the text.
template <typename... Arguments>
std::string text(const Arguments&... arguments) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream.exceptions(std::ios_base::badbit);
    (stream << ... << arguments);
    return stream.str();
}

}  // namespace Quovane::Internal::Qvtp
