#pragma once

#include <string_view>

/// Where messages end, for those who do not want to read them yet.
namespace Quovane::Internal::Qvtp::MessageBounds {

/// Whether these bytes, the first of which begins a message, end where one ends. False also if that is not sure: if a
/// head announces no length, or several, or one that cannot be read, or if a line continues the one before.
bool areWholeMessages(std::string_view bytes);

}  // namespace Quovane::Internal::Qvtp::MessageBounds
