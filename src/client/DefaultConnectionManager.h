#pragma once

#include <qvtp/client/QvtpConnectionManager.h>

#include "client/PipeInfo.h"
#include "common/RecursiveMutex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// The pool of open pipes, per pipe name and mode. Idle pipes are used again, longest idle first, and closed when they
/// are stale, which is looked for whenever a pipe is asked for. No lock is held during I/O, with one exception: new
/// pipes are created and connected one at a time in the whole process.
class DefaultConnectionManager : public Quovane::Qvtp::QvtpConnectionManager {
  public:
    using QvPipe = Quovane::Io::QvPipe;

    /// Milliseconds: how long a new pipe waits for a busy server (0 without limit), and the age above which an idle
    /// pipe is closed.
    DefaultConnectionManager(int connectTimeoutMs, int staleTimeoutMs);
    /// Closes all pipes, those in use included.
    ~DefaultConnectionManager() override;

    QvPipe* getPipe(const std::string& pipeName, const std::string& mode) override;
    void returnPipe(QvPipe* pipe) override;
    void removePipe(QvPipe* pipe) override;

  private:
    using PipeInfoPtr = std::unique_ptr<PipeInfo>;
    using IdlePipes = std::vector<PipeInfo*>;  // not owned; most recently returned first

    QvPipe* takeIdle(const std::string& pipeName, const std::string& mode);
    void purgeStale();
    void close(const PipeInfo& info);
    PipeInfoPtr createPipe(const std::string& pipeName, const std::string& mode);
    void connectPipe(PipeInfo& info, const std::string& pipeName, const std::string& mode) const;
    QvPipe* use(PipeInfoPtr info, const std::string& pipeName);
    static void logUse(const PipeInfo& info, const std::string& pipeName);
    void keep(PipeInfo& info);
    PipeInfo* find(QvPipe* pipe) const;

    // An entry and a place in the list stay with a pipe and a name that are used again: that takes no memory.
    std::map<QvPipe*, PipeInfoPtr> pipes_;        // in use and idle; guarded by lock_
    std::map<std::string, IdlePipes> available_;  // guarded by lock_
    int connectTimeoutMs_;
    int staleTimeoutMs_;
    RecursiveMutex lock_;
};

}  // namespace Quovane::Internal::Qvtp
