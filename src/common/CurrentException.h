#pragma once

#include <string>

namespace Quovane::Internal::Qvtp {

/// What the exception that is being handled says of itself: its what(), or "unknown type" if it has none. Only within a
/// catch clause.
std::string describeCurrentException();

}  // namespace Quovane::Internal::Qvtp
