#pragma once

#include <qvtp/Export.h>
#include <qvtp/message/QvtpMessage.h>

#include <cstddef>
#include <istream>
#include <string>
#include <vector>

namespace Quovane::Qvtp {

/// A message that is read: a request on the server, a response on the client.
///
/// Start line and headers are read from the pipe when they are first needed, and only once. The body is read when it is
/// asked for, also once. One thread at a time uses a message. Reading throws the exceptions of QvPipe, and
/// InterruptedException if the peer's stream ends before or inside the head.
class QVTP_API QvtpMessageIn : public QvtpMessage {
  public:
    ~QvtpMessageIn() noexcept override;

    /// The start line, waiting for it if it has not been read. If reading the head failed before, a stand-in: status
    /// 500 for a response, method NONE for a request. Throws QvPipeException with code 1011 if the head gives no length
    /// of the body.
    virtual std::string getStartLine() = 0;

    // Header names are matched without regard to case or to white space around them. These three do not read: call
    // getStartLine() or anything that needs it first.

    /// The first value of the header, or an empty string.
    virtual std::string getHeader(const std::string& name) const = 0;
    /// All values of the header in order; values are separated by commas or by repeating the header.
    virtual std::vector<std::string> getHeaders(const std::string& name) const = 0;
    /// The names of all headers as the peer wrote them, in the order of their upper-cased names.
    virtual std::vector<std::string> getHeaderNames() = 0;

    /// Reads the whole body into a new array that belongs to the caller: free it with delete[].
    /// A zero byte follows the `length` bytes. Of a body of known length nothing may have been read before. Nothing is
    /// stored when it throws. Throws QvPipeException: with code 1013 if the head could not be read, with code 1011 if
    /// it gives no length, and "Reached the stream end-of-file before the expected length." if a body of known length
    /// is cut off. Of a chunked body that is cut off it gives what came: see getBodyStream().
    /// The peer chooses the length. If there is no memory for it, that is a QvPipeException too, never std::bad_alloc:
    /// "Not enough memory for a body of N bytes.", or for a chunked body "Not enough memory for a body of which N bytes
    /// were read.". Read bodies that may be large from the stream.
    virtual void getBody(char** data, size_t& length) = 0;
    /// A stream over the body, for bodies of any size. It belongs to the message and throws on badbit, so the
    /// exceptions of QvPipe reach whoever uses its own functions, such as read() and get(). They do not reach a copy by
    /// `out << stream->rdbuf()`: the standard library drops them there, and the copy just ends.
    /// A chunked body that is malformed or cut off ends early, without an exception. That is logged at ERROR, unless it
    /// is cut off inside a chunk. Throws like getBody() if there is no head, and QvPipeException
    /// "Not enough memory for a body." if there is none for the stream.
    virtual std::istream* getBodyStream() = 0;

  protected:
    QvtpMessageIn();
};

}  // namespace Quovane::Qvtp
