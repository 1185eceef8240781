#pragma once

#include <qvtp/io/IllegalArgumentException.h>
#include <qvtp/io/IllegalStateException.h>

namespace Quovane::Io {

/// What both kinds of pipe ask of bind().
inline void checkBind(bool readable, bool writable, bool isBound) {
    if (!readable && !writable) throw IllegalArgumentException("Pipe must be readable or writable.");
    if (isBound) throw IllegalStateException("Pipe is already bound.");
}

}  // namespace Quovane::Io
