#pragma once

#include <qvtp/server/QvtpServer.h>

#include "server/RequestWorker.h"
#include "server/ServerSettings.h"
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
          stepMs_(std::max(server.idleTimeout_ / 10, 1)),
          makesRoom_(server.settings_->makesRoom) {}

    /// Starts the worker as soon as there is a thread for it. False if the server stops first.
    bool startWorker();
    /// Puts it into the map, which cannot fail.
    void enterWorker(WorkerMap::node_type entry);

  private:
    using Clock = Internal::Qvtp::ThreadUse::Clock;

    enum class StartResult { STARTED, NO_THREAD, FAILED };

    StartResult tryToStart();
    bool mayGoOn() const;
    void askForRoom();
    bool askTheLongestSilent();
    void askAll();
    void askForThread();
    void awaitStep(std::uint64_t seenEnds, bool startFailed);
    bool awaitThread(std::uint64_t seenEnds, bool startFailed, Clock::time_point deadline);
    void logEndOfWait(std::int64_t waitedMs) const;

    QvtpServer& server_;
    Internal::Qvtp::RequestWorker& worker_;
    Internal::Qvtp::ThreadUse& threads_;
    const int stepMs_;
    const bool makesRoom_;
    const Clock::time_point begin_ = Clock::now();
    // Of this step.
    Internal::Qvtp::RequestWorker* asked_ = nullptr;  // whose client makes room; not owned
    bool allAsked_ = false;
};

}  // namespace Quovane::Qvtp
