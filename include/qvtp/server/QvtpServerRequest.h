#pragma once

#include <qvtp/Export.h>
#include <qvtp/message/QvtpMessageIn.h>
#include <qvtp/message/Version.h>

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <vector>

namespace Quovane::Soa::Common::Xml {
class Utf8String;
}

namespace Quovane::Internal::Qvtp {
class InputBuffer;
class QvtpMessageInImpl;
class RequestWorker;
}  // namespace Quovane::Internal::Qvtp

namespace Quovane::Qvtp {

class QvtpServer;

/// A request as the handler sees it. It belongs to the server and is used on the handler's thread, during its call.
/// Reading the body is subject to the server's RECEIVE_TIMEOUT.
class QVTP_API QvtpServerRequest : public QvtpMessageIn {
  public:
    /// Who has sent a request. -1: the system does not say.
    struct Peer {
        std::int64_t processId = -1;
        std::int64_t userId = -1;   ///< Linux: the effective user
        std::int64_t groupId = -1;  ///< Linux: the effective group
    };

    /// Nothing is read yet. None of the three is owned; all must outlive the request.
    QvtpServerRequest(QvtpServer* server, std::istream* in, Soa::Common::Xml::Utf8String* converter);
    QvtpServerRequest(const QvtpServerRequest&) = delete;
    QvtpServerRequest& operator=(const QvtpServerRequest&) = delete;
    ~QvtpServerRequest() override;

    std::string getStartLine() override;
    std::string getHeader(const std::string& name) const override;
    std::vector<std::string> getHeaders(const std::string& name) const override;
    std::vector<std::string> getHeaderNames() override;
    void getBody(char** data, size_t& length) override;
    /// A client writes its whole request before it reads. A handler that answers at length while it still reads is
    /// stuck as soon as both directions are full. Its write times out after 10 seconds, the connection is closed, and
    /// both sides lose. Read the whole body first; what is too large for memory goes into a file. Only an answer of up
    /// to some 64 KB can be written at any time.
    std::istream* getBodyStream() override;

    // These three do not throw QvPipeException: a request that cannot be read has the values named last.

    /// METHOD_POST or METHOD_NOTIFY when a handler sees it; METHOD_NONE.
    std::string getMethod();
    /// The resource, UTF-8; an empty string (from the call that fails; later ones give a stand-in, "Empty/Resource").
    std::string getResource();
    /// The version of the client's protocol; the current version.
    Version getQvtpVersion();

    /// The process that opened this connection, as it was then: the system says so, not the client. Windows knows its
    /// number only. The number may be another process's by now, if the client has gone. All are -1 outside of a server,
    /// when the server stops meanwhile, and on a system that does not know. Throws nothing. Each call asks the system
    /// once, and nothing is asked for requests that do not call it.
    Peer getPeer() const;

  private:
    friend class Internal::Qvtp::RequestWorker;
    std::shared_ptr<Internal::Qvtp::InputBuffer> bodyReader() const;

    QvtpServer* server_;  // not owned
    std::unique_ptr<Internal::Qvtp::QvtpMessageInImpl> impl_;
    Soa::Common::Xml::Utf8String* converter_;  // not owned
};

}  // namespace Quovane::Qvtp
