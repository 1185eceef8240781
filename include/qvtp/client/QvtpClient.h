#pragma once

#include <qvtp/Export.h>
#include <qvtp/client/QvtpConnectionManager.h>
#include <qvtp/message/Version.h>

#include <atomic>
#include <mutex>
#include <string>

namespace Quovane::Qvtp {

/// What all requests to a server share: options, and the pool of open pipes. It does no I/O itself.
///
///     QvtpClient client;
///     PostRequest request(&client, "prices", "/convert");
///     request.setBody("12 EUR", 6);
///     std::unique_ptr<QvtpResponse> response(request.execute());
///
/// Any thread may use it. It must outlive its requests. A request must outlive the reading of its response. In a forked
/// child the client makes pipes of its own: those of the parent are dropped there, and stay open in the parent.
/// docs/threading.md has more about forks.
class QVTP_API QvtpClient {
  public:
    enum ClientOptions : int {
        CONNECTION_TIMEOUT = 0,  ///< integer, ms, 60000: how long a new pipe waits for a busy server; 0 without limit
        IDLE_TIMEOUT = 1,        ///< integer, ms, 10000: an open pipe that was idle for longer is not used again
        USER_AGENT = 2,          ///< string, "QvtpClient": the HEADER_USER_AGENT of every request
        BUFFER_SIZE = 3,         ///< integer, bytes, 40960: the pieces in which a body is copied; also the chunk size
    };

    /// The client makes its own connection manager when it first needs one.
    QvtpClient();
    /// Uses the caller's manager, which stays the caller's and must outlive the client. Null: as without.
    explicit QvtpClient(QvtpConnectionManager* manager);
    QvtpClient(const QvtpClient&) = delete;
    QvtpClient& operator=(const QvtpClient&) = delete;
    /// Closes the pipes of its own manager.
    virtual ~QvtpClient();

    /// The connection manager; it belongs to whoever made it. The first call makes the client's own, with the time-outs
    /// of that moment. Setting CONNECTION_TIMEOUT or IDLE_TIMEOUT later has no effect on it.
    QvtpConnectionManager* getManager();

    /// The version of the protocol that this client speaks.
    Version getQvtpVersion() const;

    /// Sets an option. Any value is kept; a buffer size below 1 works as 1. An option of the other kind is logged at
    /// ERROR and changes nothing.
    void setOption(ClientOptions option, const std::string& value);
    void setOption(ClientOptions option, int value);

    /// The value of an option. An option of the other kind is logged at ERROR; the result is an empty string or -1.
    std::string getStringOption(ClientOptions option) const;
    int getIntegerOption(ClientOptions option) const;

    /// How long a POST waits for its response, and for each pause within it: milliseconds, 0 (the default) and below
    /// without limit. When the time is over, TimeoutException leaves execute(), or whoever reads the body, and the pipe
    /// is closed instead of used again. It holds for requests that are executed from now on, also where the connection
    /// manager has set a read time-out of its own. From any thread. It throws nothing. A wait with a limit may take a
    /// call or two of the system more than one without.
    void setResponseTimeout(int milliseconds);
    int getResponseTimeout() const;

  private:
    struct QVTP_HIDDEN IntegerOptions;

    std::atomic<QvtpConnectionManager*> manager_{nullptr};
    bool ownsManager_ = false;
    std::atomic<int> connectionTimeout_{60000};
    std::atomic<int> idleTimeout_{10000};
    std::string userAgent_ = "QvtpClient";
    std::atomic<int> bufferSize_{40960};
    std::atomic<int> responseTimeout_{0};
    mutable std::mutex mutex_;  // guards the making of the manager, ownsManager_ and userAgent_
};

using ClientOptions = QvtpClient::ClientOptions;

}  // namespace Quovane::Qvtp
