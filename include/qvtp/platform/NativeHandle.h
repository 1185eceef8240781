#pragma once

#include <cstdint>

namespace Quovane::Io {

/// A pipe of the library, or its event. A pipe's value is never used again for another one. On Windows its low 32 bits
/// are the handle of the operating system. Values mean nothing outside the process that obtained them.
using NativeHandle = std::intptr_t;

/// The value of a handle that is not open: all bits set, as the operating system's INVALID_HANDLE_VALUE.
inline constexpr NativeHandle INVALID_NATIVE_HANDLE = -1;

}  // namespace Quovane::Io
