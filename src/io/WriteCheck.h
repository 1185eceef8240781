#pragma once

namespace Quovane::Internal::Qvtp {

/// Turns a WriteResult of the platform into what a pipe throws. Nothing for WRITTEN.
void checkWritten(int result);

}  // namespace Quovane::Internal::Qvtp
