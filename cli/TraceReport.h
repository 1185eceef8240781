#pragma once

#include "cli/CommunicationLog.h"

#include <string>

namespace qvtp::cli {

/// One line for each message and each line of the log, for a terminal.
std::string textOf(const Trace& trace);
/// A sequence diagram, with a timeline of the exchanges below it.
std::string svgOf(const Trace& trace);
/// A page that needs nothing else: the picture, and every message with its headers.
std::string htmlOf(const Trace& trace);
std::string jsonOf(const Trace& trace);

}  // namespace qvtp::cli
