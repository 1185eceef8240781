#pragma once

#include <qvtp/Export.h>
#include <qvtp/client/AbstractQvtpRequest.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>

#include <istream>
#include <string>

namespace Quovane::Internal::Qvtp {
class AbstractQvtpRequestImpl;
}

namespace Quovane::Qvtp {

/// A request that is answered. It must outlive the reading of its response: its destruction gives the pipe away.
class QVTP_API TwoWayRequest : public AbstractQvtpRequest {
  public:
    TwoWayRequest(const TwoWayRequest&) = delete;
    TwoWayRequest& operator=(const TwoWayRequest&) = delete;
    /// Gives the pipe back to the pool. It closes the pipe instead
    /// - if the exchange failed;
    /// - if the rest of the response is more than 64 KB, or takes more than 100 ms all in all;
    /// - if bytes came after the response that belong to no message (those that come later cannot be seen);
    /// - in a forked child, if the pipe is the parent's: for the child alone, without reading from it.
    /// A response that is read later ends there. An exception of the connection manager's returnPipe() other than
    /// IllegalStateException may leave it.
    ~TwoWayRequest() noexcept(false) override;

    std::string getStartLine() override;
    void addHeader(const std::string& name, const std::string& value) override;
    void setHeader(const std::string& name, const std::string& value) override;
    void removeHeader(const std::string& name) override;
    void setBody(const char* data, size_t size) override;
    bool isCommitted() const override;
    std::string getMethod() const override;
    void setResource(const std::string& resource) override;
    std::string getResource() const override;
    void setBodyStream(std::istream* stream) override;

    /// Sends the request and reads the head of the response, which belongs to the caller: delete it, before the
    /// request. There is no time-out for the response unless QvtpClient::setResponseTimeout() sets one, or the
    /// connection manager a read time-out on its pipes.
    /// A connection that breaks before the head is out is replaced, and the request is sent again: the caller does not
    /// notice. Throws
    /// - IllegalStateException: no body, two bodies, or executed before. It also means that the connection broke after
    ///   the head of a request with a whole body was sent; the server may have acted on it or not;
    /// - BrokenPipeException: the connection broke in the middle of a body stream;
    /// - QvPipeException: no connection could be made, or "The body stream failed before its end.";
    /// - the exceptions of the connection manager, if it is the application's, and those of QvPipe for reading and
    ///   writing;
    /// - InterruptedException or QvPipeException: the server hung up instead of answering;
    /// - TimeoutException: one of those time-outs is over. The server may have acted on the request or not.
    QvtpResponse* execute();

  protected:
    /// The client is not owned and must outlive the request.
    TwoWayRequest(const std::string& method, const std::string& resource, QvtpClient* client,
                  const std::string& pipeName);

  private:
    Internal::Qvtp::AbstractQvtpRequestImpl* impl_;  // owned; deleted by hand, since its destructor may throw
};

}  // namespace Quovane::Qvtp
