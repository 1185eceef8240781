#include "support/PipeName.h"

#include <atomic>
#include <random>

namespace qvtp_test {

std::string uniquePipeName(const std::string& hint) {
    // Random rather than a process id: the ids of Windows programs under Wine and of others may be the same.
    static const unsigned process = std::random_device()();
    static std::atomic<int> counter{0};
    return hint + "-" + std::to_string(process) + "-" + std::to_string(++counter);
}

}  // namespace qvtp_test
