#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvtp::cli {

/// A pipe of this user, as the system shows it without being connected to.
struct PipeEntry {
    std::string name;       ///< as it can be used to connect; of a very long one what its file is called
    std::string path;       ///< of the system
    std::string direction;  ///< "both", "to server", "to client", or empty if that is not known
    bool isLive = false;    ///< a process serves it
    std::int64_t pid = -1;  ///< of that process, -1 if it is not known
    std::string program;    ///< of that process, or empty
};

/// In the order of their names.
std::vector<PipeEntry> findPipes();

}  // namespace qvtp::cli
