#pragma once

#include <qvtp/easy.h>

/// What the program returns: scripts tell failures apart by it.
namespace qvtp::cli {

enum ExitCode : int {
    OK = 0,            ///< a status of 2xx, or whatever was to be done is done
    OTHER_STATUS = 1,  ///< of the reply; its body is printed all the same
    USAGE = 2,
    NO_PIPE = 3,
    DENIED = 4,
    TIMED_OUT = 5,
    BROKEN = 6,  ///< or cut off
    MALFORMED = 7,
    SIGNALLED = 130,
};

inline constexpr char EXIT_CODES[] =
    "Exit codes:\n"
    "  0    a status of 2xx; for other commands: done\n"
    "  1    another status (the body is printed all the same), or a test that failed\n"
    "  2    wrong usage\n"
    "  3    there is no such pipe\n"
    "  4    access denied, or the name is taken\n"
    "  5    time-out\n"
    "  6    the connection broke, or a body was cut off\n"
    "  7    the reply is malformed\n"
    "  130  ended by a signal\n";

inline ExitCode exitCodeOf(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::no_server:
            return NO_PIPE;
        case ErrorKind::denied:
        case ErrorKind::name_taken:
        case ErrorKind::bad_directory:
            return DENIED;
        case ErrorKind::busy:
        case ErrorKind::timed_out:
            return TIMED_OUT;
        case ErrorKind::malformed_reply:
            return MALFORMED;
        case ErrorKind::misuse:
            return USAGE;
        default:
            return BROKEN;
    }
}

}  // namespace qvtp::cli
