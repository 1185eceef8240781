#pragma once

#include <string_view>

/// Where messages end, for who does not want to read them yet.
namespace Quovane::Internal::Qvtp::MessageBounds {

/// Whether these bytes, the first of which begins a message, end where one ends. False also if that is not sure, since
/// a head announces no length, or several, or one that cannot be read.
bool areWholeMessages(std::string_view bytes);

}  // namespace Quovane::Internal::Qvtp::MessageBounds
