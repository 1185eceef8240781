#pragma once

#include <qvtp/io/QvPipe.h>

#include "common/Utf8String.h"

#include <Poco/Runnable.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace Quovane::Io {
class QvPipeException;
}

namespace Quovane::Qvtp {
class QvtpServer;
class QvtpServerRequest;
}  // namespace Quovane::Qvtp

namespace Quovane::Internal::Qvtp {

/// Serves one accepted connection on a pool thread: reads requests one after another and calls the handler for each.
/// It hangs up when the client goes quiet, on any failure, when the server stops, and between two requests when the
/// server needs its thread for a new connection. The server deletes it when it is no longer running.
class RequestWorker : public Poco::Runnable {
  public:
    using QvtpServer = Quovane::Qvtp::QvtpServer;
    using QvtpServerRequest = Quovane::Qvtp::QvtpServerRequest;

    /// The server is not owned.
    RequestWorker(std::unique_ptr<Quovane::Io::QvPipe> pipe, QvtpServer* server, const std::string& name);
    ~RequestWorker() override;

    void run() override;

    /// From the server's thread: ends the loop and wakes it.
    void stop();
    void setGiveUp(bool giveUp) { giveUp_ = giveUp; }

    /// False when run() has done its last step: only then the worker may be deleted.
    bool isRunning() const { return running_; }
    /// When the pool has stopped, a worker whose thread never came to run() never will.
    void endUnlessBegun() {
        if (!begun_) running_ = false;
    }
    const std::string& getFullName() const { return fullName_; }

  private:
    void prepareStreams();
    void serveRequests();
    bool serveRequest();
    bool awaitRequest(QvtpServerRequest& request);
    bool handle(QvtpServerRequest& request);
    bool dispatch(QvtpServerRequest& request);
    void handleNotify(QvtpServerRequest& request);
    void handlePost(QvtpServerRequest& request);
    bool skipBody(QvtpServerRequest& request);
    bool hasFailedStream() const;
    void logFailure(const char* kind, const std::string& message, QvtpServerRequest& request) const;

    QvtpServer* server_;  // not owned
    std::unique_ptr<Quovane::Io::QvPipe> pipe_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> running_{true};
    std::atomic<bool> begun_{false};
    std::atomic<bool> giveUp_{false};
    std::string name_;
    std::string fullName_;
    std::vector<char> inputBuffer_;   // of the pipe's stream
    std::vector<char> outputBuffer_;  // of the pipe's stream; empty if it does not write
    int idleTimeoutMs_ = 0;
    int receiveTimeoutMs_ = 0;
    Quovane::Soa::Common::Xml::Utf8String converter_;
};

}  // namespace Quovane::Internal::Qvtp
