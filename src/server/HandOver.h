#pragma once

#include <qvtp/server/QvtpServer.h>

#include "server/RequestWorker.h"
#include "server/ThreadUse.h"

#include <algorithm>
#include <cstdint>

namespace Quovane::Qvtp {

/// Finds a thread for one worker. The other workers are asked for theirs if need be.
class QvtpServer::HandOver {
  public:
    HandOver(QvtpServer& server, Internal::Qvtp::RequestWorker& worker)
        : server_(server),
          worker_(worker),
          threads_(*server.threads_),
          stepMs_(std::max(server.idleTimeout_ / 10, 1)) {}

    /// Starts the worker as soon as there is a thread for it. False if the server stops first.
    bool startWorker();
    /// Puts it into the map, which cannot fail.
    void enterWorker(WorkerMap::node_type entry);

  private:
    enum class StartResult { STARTED, NO_THREAD, FAILED };

    StartResult tryToStart();
    void askForThread();
    void awaitThread(std::uint64_t seenEnds, bool startFailed);
    void logEndOfWait(std::int64_t waitedMs) const;

    QvtpServer& server_;
    Internal::Qvtp::RequestWorker& worker_;
    Internal::Qvtp::ThreadUse& threads_;
    const int stepMs_;
};

}  // namespace Quovane::Qvtp
