#pragma once

#include <qvtp/Export.h>

namespace Quovane::Qvtp {

class QvtpServerRequest;
class QvtpServerResponse;

/// What the application does with requests. The server calls it on a worker thread, one request of a connection after
/// another, several connections at once: guard what they share.
///
/// Request and response belong to the server and live until the call returns. What a handler leaves unread of a
/// request's body is skipped, up to 256 KiB; beyond that the connection is closed after the response.
///
/// Exceptions: IllegalStateException and QvPipeException (which reading and writing throw), and what a body stream
/// throws when it is used after that, are logged and close the connection; let them pass. Any other exception is logged
/// too, and QvtpServer::setUnhandledExceptionPolicy() decides what becomes of the connection. Unless it is set, the
/// client stays connected and waits for an answer that never comes, since the default must not send or close anything
/// that the handler did not ask for. Use ANSWER: then the client gets a response of status 500, and a faulty handler
/// costs one request.
class QVTP_API QvtpHandler {
  public:
    virtual ~QvtpHandler();

    /// Handles a NOTIFY; there is no response.
    virtual void handleNotify(QvtpServerRequest* request) = 0;
    /// Handles a POST: fill the response and call its send() or sendError() once, or the client waits in vain.
    virtual void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) = 0;

  protected:
    QvtpHandler();
};

}  // namespace Quovane::Qvtp
