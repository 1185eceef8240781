#pragma once

// Applications and <windows.h> may have macros of these names: they are set aside for the length of this header. Use
// the enumerators where no such macro is defined, or by their number.
#pragma push_macro("ERROR")
#pragma push_macro("DEBUG")
#undef ERROR
#undef DEBUG

namespace Quovane::Qvtp {

/// How much the diagnostic log records. A line is written when the current level is at least the line's own level.
enum class LoggingLevel : int {
    OFF = 0,
    ERROR = 1,
    WARN = 2,
    INFO = 3,
    DEBUG = 4,
};

/// Which directions the communication log records: INPUT is what was read from pipes, OUTPUT what was written to them.
enum class CommunicationLevel : int {
    OFF = 0,
    INPUT = 1,
    OUTPUT = 2,
    BOTH = 3,
    both = BOTH,
};

}  // namespace Quovane::Qvtp

#pragma pop_macro("DEBUG")
#pragma pop_macro("ERROR")
