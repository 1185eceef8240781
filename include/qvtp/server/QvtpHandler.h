#pragma once

#include <qvtp/Export.h>

namespace Quovane::Qvtp {

class QvtpServerRequest;
class QvtpServerResponse;

/// What the application does with requests. The server calls it on worker threads: the requests of one connection one
/// after another, those of several connections at once. Guard what they share.
///
/// Request and response belong to the server and live until the call returns. What a handler leaves unread of a
/// request's body is skipped, up to 256 KiB; beyond that the connection is closed after the response.
///
/// Exceptions: reading and writing throw IllegalStateException and QvPipeException, and a body stream that is used
/// after that throws std::ios_base::failure. Let them pass: they are logged and close the connection. Any other
/// exception is logged too, IllegalArgumentException among them, and QvtpServer::setUnhandledExceptionPolicy() decides
/// what becomes of the connection. Unless it is set, the client stays connected and waits for an answer that never
/// comes: the default sends and closes nothing that the handler did not ask for. Use ANSWER. Then the client gets a
/// response of status 500, and a faulty handler costs one request.
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
