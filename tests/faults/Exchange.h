#pragma once

#include <qvtp/client/NotifyRequest.h>
#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>
#include <qvtp/server/QvtpHandler.h>
#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>
#include <qvtp/server/QvtpServerResponse.h>

#include "faults/FaultShim.h"
#include "faults/Scenario.h"
#include "support/PipeName.h"
#include "support/Thrown.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <istream>
#include <memory>
#include <streambuf>
#include <string>
#include <thread>

namespace qvtp_test::faults {

using namespace Quovane::Qvtp;

/// A body without a block of its own: byte number i is a function of i, so that both sides can check it.
char patternAt(std::size_t i);
bool isPattern(const char* data, std::size_t size);

/// A stream over so many bytes of the pattern.
class PatternBuffer : public std::streambuf {
  public:
    explicit PatternBuffer(std::size_t size) : left_(size) {}

  protected:
    int_type underflow() override;

  private:
    std::size_t left_;
    std::size_t position_ = 0;
    char piece_[1000];
};

/// Answers a POST with the body that it got, a resource "/stream" piece by piece, "/close" by a response and an
/// exception that ends the connection, "/wait" only when it is released. It takes no memory of its own. It counts what
/// it got right.
class EchoHandler : public QvtpHandler {
  public:
    void handleNotify(QvtpServerRequest* request) override;
    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override;

    std::atomic<int> notified{0};
    std::atomic<std::size_t> notifiedSize{0};  // only NOTIFYs of this size are counted; 0: all
    std::atomic<int> wrong{0};                 // bodies that were whole and wrong
    std::atomic<int> waiting{0};               // in "/wait"
    std::atomic<bool> released{false};

  private:
    void answerWhole(QvtpServerRequest& request, QvtpServerResponse& response);
    static void answerStream(QvtpServerRequest& request, QvtpServerResponse& response);
};

/// A server in a thread of its own.
class EchoServer {
  public:
    EchoServer();
    ~EchoServer();

    void construct(int accessMode = 1, int idleTimeoutMs = 13000, int receiveTimeoutMs = 3000, int workers = 3);
    void start();
    /// False: it ended instead.
    bool waitUntilItRuns() const;
    void stop();

    std::string name;
    EchoHandler handler;
    std::unique_ptr<QvtpServer> server;

  private:
    std::thread thread_;
    std::atomic<bool> ended_{false};
};

/// A client that gives up connecting after two seconds: it tries again until then, whatever fails.
std::unique_ptr<QvtpClient> newClient();

/// An exchange on the client's side: "right", a status, what was thrown, or "WRONG" and what nobody may see.
std::string postWhole(QvtpClient& client, const std::string& name, const std::string& resource, std::size_t size);
std::string postStream(QvtpClient& client, const std::string& name, std::size_t size);
std::string notify(QvtpClient& client, const std::string& name, std::size_t size);

/// The same exchange until a server is there for it. One that could not make its next instance tries again in a moment,
/// and until then its name may be gone. One that is giving up an idle connection may have closed it or not when the
/// next request is written: its client gets an exception then.
std::string onceServed(const std::function<std::string()>& exchange);

bool soon(const std::function<bool()>& condition, int limitMs = 10000);
int openDescriptors();

}  // namespace qvtp_test::faults
