#pragma once

#include <qvtp/server/QvtpServer.h>

#include "server/Drain.h"

#include <atomic>
#include <mutex>

namespace Quovane::Internal::Qvtp {

/// What a server was told that is no option. From any thread.
class ServerSettings {
  public:
    using Limits = Quovane::Qvtp::QvtpServer::Limits;

    void setLimits(const Limits& limits) {
        const std::lock_guard<std::mutex> guard(mutex_);
        limits_ = limits;
    }
    Limits limits() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return limits_;
    }

    std::atomic<bool> makesRoom{false};
    Drain drain;

  private:
    mutable std::mutex mutex_;  // guards the rest
    Limits limits_;
};

}  // namespace Quovane::Internal::Qvtp
