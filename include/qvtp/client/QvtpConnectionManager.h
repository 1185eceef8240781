#pragma once

#include <qvtp/Export.h>
#include <qvtp/io/QvPipe.h>

#include <string>

namespace Quovane::Qvtp {

/// Where requests take their pipes from and give them back to. QvtpClient makes one that keeps pipes open between
/// requests; an application may hand its own to the client instead, for example to set a read time-out on every pipe.
///
/// Any number of threads call it at once. It owns every pipe it hands out. A process that forks must not use in the
/// child what the parent's pool holds; the client's own manager sees to that.
class QVTP_API QvtpConnectionManager {
  public:
    virtual ~QvtpConnectionManager();

    /// A connected pipe of this name for the caller alone. `mode`: "w" for requests without a response, "rw" for those
    /// with one. Pipes of different modes never mix. Never null: throws QvPipeException if it cannot give one. The
    /// client's own manager throws that class for every failure to connect, and none of its subclasses.
    /// Streams of the pipe must have buffers (rdbuf()->pubsetbuf()): without one an output stream fails.
    virtual Io::QvPipe* getPipe(const std::string& pipeName, const std::string& mode) = 0;
    /// Takes a pipe back after a complete exchange, with nothing left to read in its stream's buffer. The client's own
    /// manager closes it if there is no memory to keep it. Throws IllegalStateException for a pipe that is not handed
    /// out.
    virtual void returnPipe(Io::QvPipe* pipe) = 0;
    /// Closes and deletes a pipe after a failure. Throws IllegalStateException for a pipe that is not handed out. The
    /// client's own manager throws that too, but first it closes and deletes a pipe that it does not know.
    virtual void removePipe(Io::QvPipe* pipe) = 0;

  protected:
    QvtpConnectionManager();
};

}  // namespace Quovane::Qvtp
