#pragma once

#include <string>

namespace Quovane::Internal::Qvtp {

/// Logs at ERROR what is wrong with the directory or the lock file of a name, if anything is: the numbers and texts of
/// a refusal are the same for all reasons. It looks again, so that what has been set right meanwhile is no longer
/// found. The thread's last error stays as it was.
class Refusal {
  public:
    /// Of a client, which makes no directory: none is no refusal.
    static void logOfClient(const std::string& pipePath);
    static void logOfServer(const std::string& pipePath);
};

}  // namespace Quovane::Internal::Qvtp
