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
    /// Gives the pipe back to the pool. It closes the pipe instead if the exchange has failed, or in a forked child if
    /// the pipe is the parent's. An exception of the connection manager's returnPipe() other than
    /// IllegalStateException may leave it.
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
    /// A connection that breaks before the head is out is replaced, and the request is sent again: the caller does not
    /// notice. Throws
    /// - IllegalStateException: no body, two bodies, or executed before. It also means that the connection broke after
    ///   the head of a request with a whole body was sent; the server may have acted on it or not;
    /// - BrokenPipeException: the connection broke in the middle of a body stream;
    /// - QvPipeException: no connection could be made, or "The body stream failed before its end.";
    /// - the exceptions of the connection manager, if it is the application's, and those of QvPipe for reading and
    ///   writing.
    void execute();

  protected:
    /// The client is not owned and must outlive the request.
    OneWayRequest(const std::string& method, const std::string& resource, QvtpClient* client,
                  const std::string& pipeName);

  private:
    Internal::Qvtp::AbstractQvtpRequestImpl* impl_;  // owned; deleted by hand, since its destructor may throw
};

}  // namespace Quovane::Qvtp
