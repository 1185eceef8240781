#pragma once

#include <qvtp/Export.h>
#include <qvtp/message/QvtpMessageOut.h>

#include <istream>
#include <string>

namespace Quovane::Qvtp {

/// A request of either kind: a resource, headers and exactly one body source, executed once. It belongs to one thread.
class QVTP_API AbstractQvtpRequest : public QvtpMessageOut {
  public:
    ~AbstractQvtpRequest() noexcept(false) override;

    /// METHOD_POST or METHOD_NOTIFY.
    virtual std::string getMethod() const = 0;
    /// What the request is about, UTF-8, in the server's own terms. It must not contain blanks: the receiver cuts the
    /// start line at them.
    virtual void setResource(const std::string& resource) = 0;
    virtual std::string getResource() const = 0;

    /// Sends the body from a stream, of any length, in chunks; use it instead of setBody(). The stream stays the
    /// caller's and is read to its end by execute(). Call it once. A request whose body comes from a stream is not sent
    /// again when the connection breaks after its head was sent.
    virtual void setBodyStream(std::istream* stream) = 0;

  protected:
    AbstractQvtpRequest();
};

}  // namespace Quovane::Qvtp
