#pragma once

#include <qvtp/Export.h>
#include <qvtp/message/QvtpMessage.h>

#include <cstddef>
#include <string>

namespace Quovane::Qvtp {

/// A message that is written: a request on the client, a response on the server. One thread at a time uses it.
///
/// Header names are matched without regard to case or to white space around them and are written as given, in the order
/// of their upper-cased names. A value text is cut at its commas into several values, so no value can contain one. CR,
/// LF and NUL in a value are sent as blanks. Names are not checked: they must be tokens of RFC 9110 section 5.6.2.
class QVTP_API QvtpMessageOut : public QvtpMessage {
  public:
    ~QvtpMessageOut() noexcept(false) override;

    /// The first line as it is sent, without its line end.
    virtual std::string getStartLine() = 0;

    /// Appends the values to the header, creating it if need be. Without effect once the message is committed.
    virtual void addHeader(const std::string& name, const std::string& value) = 0;
    /// Replaces the header's spelling and values.
    virtual void setHeader(const std::string& name, const std::string& value) = 0;
    /// Removes the header, if there is one.
    virtual void removeHeader(const std::string& name) = 0;

    /// Copies the body and adds its length to HEADER_CONTENT_LENGTH. `data` may be null if `length` is 0. Call it once.
    /// A second call adds its length to the header's values, but the receiver reads the first: it cuts the body off or
    /// waits for more. That spoils this exchange only: a client gives up the connection after it.
    /// Throws IllegalArgumentException if `length` is above 2147483647, which no receiver can read; a body stream has
    /// no such limit. When it throws, the message is as it was.
    virtual void setBody(const char* data, size_t length) = 0;

    /// Whether the start line and headers have been written: later changes to them are lost.
    virtual bool isCommitted() const = 0;

  protected:
    QvtpMessageOut();
};

}  // namespace Quovane::Qvtp
