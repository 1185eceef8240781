#pragma once

#include "platform/Deadline.h"
#include "platform/Descriptor_linux.h"
#include "platform/PipeAddress_linux.h"

#include <string>

namespace Quovane::Internal::Qvtp {

/// One client's way to a connected socket: finds out whether the name is served and in which direction, then takes or
/// awaits a place in the server's queue.
class PipeConnector {
  public:
    /// The path must outlive the connector. `timeoutMs`: 0 without limit.
    PipeConnector(const std::string& path, bool readable, bool writable, int timeoutMs);

    /// Returns a ConnectResult and logs. On CONNECTED the socket can be taken.
    int connect();
    Descriptor takeSocket();

  private:
    enum class Attempt { CONNECTED, BUSY, NOT_LISTENING, DENIED, FAILED };

    /// What the files of the name say.
    struct Service {
        enum class State { NONE, SERVED, STARTING, DENIED, UNKNOWN } state;
        int direction = 0;     // of SERVED. Bit 0: the server reads; bit 1: it writes
        bool foreign = false;  // of SERVED: a socket without a lock file, not a server of this library
        int error = 0;         // of UNKNOWN: the number of a SystemError
    };

    Service findService() const;
    Service findForeignService() const;
    bool allows(int direction) const;
    Attempt attempt();
    Attempt attemptConnect(bool foreign);
    Attempt fail(int error);
    int reportFailure() const;
    int reportDenial() const;
    int reportTimeout() const;
    void beginWaiting();
    Attempt waitInQueue();

    const std::string& path_;
    bool readable_;
    bool writable_;
    int timeoutMs_;
    Deadline deadline_;
    PipeAddress address_;
    Descriptor socket_;
    bool waiting_ = false;
    int error_ = 0;
};

}  // namespace Quovane::Internal::Qvtp
