#include "faults/Scenario.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace qvtp_test::faults {

bool isStated(const std::string& outcome) {
    static constexpr std::array STATED = {
        "right",
        // exceptions
        "BindException: CreateNamedPipe failed",
        "BrokenPipeException: Pipe was closed at other end.",
        "ConnectException: Access denied.",
        "ConnectException: Could not connect to pipe.",
        "IllegalStateException: The start line and headers have already been committed",
        "InterruptedException: Reached the stream end-of-file before the expected new line.",
        "QvPipeException: Access denied.",
        "QvPipeException: Could not connect to pipe.",
        "QvPipeException: CreateNamedPipe failed",
        "QvPipeException: Not enough memory for a body",
        "QvPipeException: Pipe write failed",
        "QvPipeException: QvPipe read failed.",
        "QvPipeException: QvPipe wait failed in accept",
        "QvPipeException: Reached the stream end-of-file before the expected length.",
        "QvPipeException: The body stream failed before its end.",
        "QvPipeException: Timed out connecting to pipe",
        "QvPipeException: Unrecognized pipe connect error",
        "QvPipeException: acceptPipe failed",
        "TimeoutException: QvPipe accept timeout",
        "TimeoutException: Timed out connecting to pipe",
        "std::exception: std::bad_alloc",
        // what the client of a faulty server gets
        "status 500",
        "cut off",
        "end of stream",
        // what the log reports
        "does not run",
        "no configuration",
    };
    return std::any_of(STATED.begin(), STATED.end(),
                       [&](const char* text) { return outcome.compare(0, std::strlen(text), text) == 0; });
}

}  // namespace qvtp_test::faults
