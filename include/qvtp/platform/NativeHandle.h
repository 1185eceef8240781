#pragma once

#include <cstdint>

namespace Quovane::Io {

/// A handle of the operating system (Windows) or of the library's own handle table (Linux), as wide as a pointer.
/// Values mean nothing outside the process that obtained them.
using NativeHandle = std::intptr_t;

/// The value of a handle that is not open: all bits set, as the operating system's INVALID_HANDLE_VALUE.
inline constexpr NativeHandle INVALID_NATIVE_HANDLE = -1;

}  // namespace Quovane::Io
