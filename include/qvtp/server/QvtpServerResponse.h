#pragma once

#include <qvtp/Export.h>
#include <qvtp/message/QvtpMessageOut.h>

#include <memory>
#include <ostream>
#include <string>

namespace Quovane::Soa::Common::Xml {
class Utf8String;
}

namespace Quovane::Internal::Qvtp {
class QvtpMessageOutImpl;
class QvtpOStream;
class RequestWorker;
}  // namespace Quovane::Internal::Qvtp

namespace Quovane::Qvtp {

class QvtpServer;

/// The answer to a POST, filled and sent by the handler. It belongs to the server and is used on the handler's thread,
/// during its call. It starts as 500 "Internal Server Error" and carries HEADER_SERVER.
///
/// Give it a body either whole, with setBody(), or through getBodyStream(), and end it with send(). Nobody sends it
/// otherwise. Failures of the pipe are the exceptions of QvPipe.
class QVTP_API QvtpServerResponse : public QvtpMessageOut {
  public:
    /// None of the three is owned; all must outlive the response.
    QvtpServerResponse(QvtpServer* server, std::ostream* out, Soa::Common::Xml::Utf8String* converter);
    QvtpServerResponse(const QvtpServerResponse&) = delete;
    QvtpServerResponse& operator=(const QvtpServerResponse&) = delete;
    ~QvtpServerResponse() noexcept override;

    std::string getStartLine() override;
    void addHeader(const std::string& name, const std::string& value) override;
    void setHeader(const std::string& name, const std::string& value) override;
    void removeHeader(const std::string& name) override;
    void setBody(const char* data, size_t length) override;
    bool isCommitted() const override;

    /// Sets the code, and its reason from STATUS_REASONS, or "None" for a code that is not there.
    void setStatusCode(int code);
    /// Sets both as given. CR, LF and NUL in a reason are sent as blanks.
    void setStatusCode(int code, const std::string& reason);
    void setReasonPhrase(const std::string& reason);

    /// A stream for a body of any length, sent in chunks of the server's BUFFER_SIZE; a flush sends what there is. It
    /// belongs to the response. The start line and headers go out with the first byte: set them before.
    /// Read the whole body of the request before you write more than some 64 KB here: the client reads nothing until it
    /// has written its whole request. Otherwise each waits for the other, the write times out after 10 seconds, and
    /// both lose.
    std::ostream* getBodyStream();

    /// Sends the response, or its end after a body stream. Call it once. Throws IllegalStateException if no body was
    /// given, or two.
    void send();
    /// Sends this code and reason, without looking them up, and an empty body in place of one given before. Throws
    /// IllegalStateException if the body stream is in use.
    void sendError(int code, const std::string& reason);

  private:
    friend class Internal::Qvtp::RequestWorker;

    int statusCode_;
    std::string reasonPhrase_;
    QvtpServer* server_;  // not owned
    std::ostream* out_;   // not owned
    std::unique_ptr<Internal::Qvtp::QvtpOStream> bodyStream_;
    std::unique_ptr<Internal::Qvtp::QvtpMessageOutImpl> impl_;
    int bufferSize_;  // read once: the server may be gone when a handler that never ended comes back
    Internal::Qvtp::RequestWorker* worker_ = nullptr;  // not owned; null unless a worker serves the request
    bool sentWhole_ = false;                           // what setBody() gave was sent, or was to be
    bool hasReason_ = false;                           // until then it is the usual one of the first status
};

}  // namespace Quovane::Qvtp
