#pragma once

#include <qvtp/Export.h>

#include <cstdint>
#include <string>

namespace Quovane::Io {

/// What the system shows of a pipe name, for messages that say where a pipe is and what keeps it from working. It is
/// how things are at one moment: a server may come or go in the next.
struct PipeFacts {
    enum class State {
        FREE,           ///< a possible name that nobody serves; on Linux as far as its lock file shows
        SERVED,         ///< a server has taken the name, in this process or another
        BAD_NAME,       ///< no pipe can have this name
        NO_DIRECTORY,   ///< Linux: there is no pipe directory; a server makes it, but not the one above it
        BAD_DIRECTORY,  ///< Linux: the pipe directory, or the name's lock file in it, is refused
        UNKNOWN,        ///< the system did not say
    };

    State state = State::UNKNOWN;
    std::string path;    ///< the pipe as the system knows it, in its own encoding; of a bad name the name
    std::string reason;  ///< of the last four states: what is wrong, as one sentence; else empty
};

/// Looks at a name without connecting to it, so that no server notices. On Linux it looks at the lock file alone: a
/// name is FREE also if a program without this library listens on its socket and has no lock file. Clients can connect
/// to it (docs/porting.md). Any thread may call this at any time. Throws nothing but std::bad_alloc.
QVTP_API PipeFacts findPipeFacts(const std::string& pipeName);

/// The number of this process, another one in a forked child. It costs next to nothing and throws nothing.
QVTP_API std::int64_t currentProcessId();

}  // namespace Quovane::Io
