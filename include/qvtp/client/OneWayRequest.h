#pragma once

#include <qvtp/Export.h>
#include <qvtp/client/AbstractQvtpRequest.h>
#include <qvtp/client/QvtpClient.h>

#include <istream>
#include <string>

namespace Quovane::Internal::Qvtp {
class AbstractQvtpRequestImpl;
}

namespace Quovane::Qvtp {

/// A request without a response. When execute() returns, everything is written to the pipe; whether the server acted on
/// it is not known.
class QVTP_API OneWayRequest : public AbstractQvtpRequest {
  public:
    OneWayRequest(const OneWayRequest&) = delete;
    OneWayRequest& operator=(const OneWayRequest&) = delete;
    /// Gives the pipe back to the pool, or closes it if the exchange has failed or, in a forked child, if the pipe is
    /// the parent's. An exception of the connection manager's returnPipe() other than IllegalStateException may leave
    /// it.
    ~OneWayRequest() noexcept(false) override;

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

    /// Sends the request.
    /// Throws IllegalStateException (no body, two bodies, executed before, or the connection broke after the head of a
    /// request with a whole body was sent), BrokenPipeException (it broke in the middle of a body stream),
    /// QvPipeException "The body stream failed before its end.", and the exceptions of the connection manager and of
    /// QvPipe. A connection that breaks before the head is out is replaced, and the request sent again, unseen.
    void execute();

  protected:
    /// The client is not owned and must outlive the request.
    OneWayRequest(const std::string& method, const std::string& resource, QvtpClient* client,
                  const std::string& pipeName);

  private:
    Internal::Qvtp::AbstractQvtpRequestImpl* impl_;  // owned; deleted by hand, since its destructor may throw
};

}  // namespace Quovane::Qvtp
