#pragma once

#include "cli/ConfigText.h"

#include <string>
#include <vector>

namespace qvtp::cli {

/// An option that an entry leaves a client or server with.
struct EffectiveOption {
    std::string name;
    int value = 0;
    bool isSet = false;  ///< by the entry; else the default
};

struct CheckedEntry {
    std::string kind, function, component;
    Place place;
    std::vector<EffectiveOption> options;  ///< none if applying the entry throws
    bool isRight = true;                   ///< false: it throws
};

struct Finding {
    Place place;           ///< line 0: the file as a whole
    bool isError = false;  ///< the line does not do what it says; else it is odd
    std::string text;
};

struct ConfigReport {
    std::string file;
    bool isRead = false;                ///< by the library: it is well-formed
    std::vector<CheckedEntry> entries;  ///< that are used, in the order of the file
    std::vector<Finding> findings;
};

/// Reads the configuration file as the library does, and looks for what a reader of it would miss. It takes over the
/// environment's configuration file and the log of the process, so it is called once.
ConfigReport checkConfig(const std::string& path);

/// What a client or server of this function and component gets, after the check. Without an entry that is the defaults.
CheckedEntry effectiveEntry(const std::string& kind, const std::string& function, const std::string& component);

}  // namespace qvtp::cli
