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
    /// Gives the pipe back to the pool, or closes it: if the exchange failed, if the rest of the response is more than
    /// 64 KB or takes more than 100 ms, all in all, or if bytes came after the response that belong to no message.
    /// (Those that are still on their way cannot be seen.) A response that is read later ends there. In a forked child
    /// the parent's pipe is closed, for the child alone, without reading from it. An exception of the connection
    /// manager's returnPipe() other than IllegalStateException may leave it.
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
    /// request. There is no time-out for the response unless the connection manager sets a read time-out on its pipes.
    /// Throws IllegalStateException (no body, two bodies, executed before, or the connection broke after the head of a
    /// request with a whole body was sent), BrokenPipeException (it broke in the middle of a body stream),
    /// QvPipeException "The body stream failed before its end.", and the exceptions of the connection manager and of
    /// QvPipe. A connection that breaks before the head is out is replaced, and the request sent again, unseen.
    /// InterruptedException or QvPipeException if the server hangs up instead of answering.
    QvtpResponse* execute();

  protected:
    /// The client is not owned and must outlive the request.
    TwoWayRequest(const std::string& method, const std::string& resource, QvtpClient* client,
                  const std::string& pipeName);

  private:
    Internal::Qvtp::AbstractQvtpRequestImpl* impl_;  // owned; deleted by hand, since its destructor may throw
};

}  // namespace Quovane::Qvtp
