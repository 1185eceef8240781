#pragma once

#include <qvtp/Export.h>
#include <qvtp/platform/NativeHandle.h>

#include <atomic>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

namespace Quovane::Internal::Qvtp {
class PipeControl;
}

namespace Quovane::Io {

/// One end of a local named pipe: the client's, opened by name, or the server's, filled in by ServerQvPipe::accept.
///
/// Copies share the connection: closing one closes all. They also share the two streams; the last copy frees them.
/// Copies may end on several threads at once. Closing and ending need no memory.
/// One thread at a time reads and writes. close() may come from any thread; it makes a blocked call throw
/// InterruptedException. After any exception from reading or writing the pipe is good for closing only.
///
/// Time-outs are milliseconds; 0 waits without limit. Writing has a fixed time-out of 10 seconds, which on Linux each
/// 4096 bytes of progress renew.
///
/// On Linux the pipe `name` is the socket `<directory>/name.sock`, where the directory is `$QVTP_PIPE_DIR` or
/// `/tmp/qvtp-pipe-<effective user id>`; docs/porting.md has the details.
class QVTP_API QvPipe {
  public:
    /// The path that stands before every name: the local machine's pipe namespace, "\\.\pipe\".
    static const std::string PIPE_NAME_PREFIX;

    /// An unbound pipe with a connect time-out of 10000 and no read time-out.
    QvPipe();
    /// Binds and connects, without any time-out: a busy server is waited for without limit.
    /// Throws as connect(name, readable, writable).
    QvPipe(const std::string& name, bool readable, bool writable);
    /// The copy has every field of the original, handles and streams too. No handle is duplicated or counted. Close a
    /// pipe before you assign to it: what it had open stays open otherwise, and nobody can reach it.
    QvPipe(const QvPipe& other);
    QvPipe& operator=(const QvPipe& other);
    /// Closes the connection, for all copies.
    ~QvPipe();

    /// Sets name and access; opens nothing. `readable`: data will flow from the server to here; `writable`: from here
    /// to the server. Throws IllegalArgumentException if both are false, IllegalStateException if already bound.
    void bind(const std::string& name, bool readable, bool writable);
    /// Whether the pipe has a name. Closing does not take it away.
    bool isBound() const;

    /// Opens the client's end of the bound name. A name that no server has created fails at once. A server whose
    /// instances are all busy is waited for, as long as the connect time-out says.
    /// Throws IllegalStateException (not bound), ConnectException (no server, or access denied: the server does not
    /// offer this direction, or belongs to another user), TimeoutException (busy), QvPipeException (anything else).
    /// It does not look whether the pipe is open already: close it first.
    void connect();
    /// bind(), then connect(), with the exceptions of both.
    void connect(const std::string& name, bool readable, bool writable);

    /// Closes the connection; from any thread, and harmless when it is closed. Name and streams stay. What was
    /// written before stays readable for the peer.
    void close();

    /// The stream that reads from the pipe, the same at every call. It belongs to the pipe and lives as long as any
    /// copy. It throws on badbit, so the exceptions of readPipe() reach its user. Install a buffer with
    /// rdbuf()->pubsetbuf() before the first read; without one every byte is a read of its own.
    /// Throws IllegalStateException if the pipe is not bound with read access.
    std::istream* getInputStream();
    /// The same for writing. Install a buffer with rdbuf()->pubsetbuf() here too: without one the first write takes the
    /// stream for failed. Flush it after a message: the buffer holds back what does not fill it.
    std::ostream* getOutputStream();

    void setReadTimeout(int milliseconds);
    int getReadTimeout() const;
    void setConnectTimeout(int milliseconds);
    int getConnectTimeout() const;

    /// Reads at most `length` bytes into buffer + offset, as soon as there are any. `timeout`: milliseconds, 0 waits
    /// without limit. Returns the count (at least 1), or -1 if the peer closed while the call was waiting.
    /// Throws TimeoutException, InterruptedException (closed meanwhile), QvPipeException (anything else, also a peer
    /// that had closed before the call when nothing is left to read).
    int readPipe(char* buffer, int offset, int length, int timeout);
    /// Writes all `length` bytes from buffer + offset. Throws BrokenPipeException (the peer has closed),
    /// InterruptedException (closed meanwhile), TimeoutException (10 seconds), QvPipeException (anything else).
    void writePipe(const char* buffer, int offset, int length);

  private:
    friend class ServerQvPipe;                 // fills in the accepted connection
    friend class Internal::Qvtp::PipeControl;  // waits on it and parts from it for the server
    template <typename Stream>
    class PipeStream;
    class QVTP_HIDDEN InputStream;
    class QVTP_HIDDEN OutputStream;

    struct InPlace {};
    /// An unbound pipe that `complete` works on. A function that returns a pipe in this way makes no copy, whatever the
    /// compiler leaves out. A copy would close the connection for the other when it goes. What `complete` throws
    /// destroys the pipe.
    template <typename Complete>
    QvPipe(InPlace, const Complete& complete) : QvPipe() {
        complete(*this);
    }

    // The display name is for a debugger; nothing depends on it.
    void connectPipe(const std::string& path, const std::string& displayName, bool readable, bool writable,
                     int timeoutMs);
    void closePipe();
    template <typename Stream>
    void orphan(const std::shared_ptr<Stream>& stream);

    bool readable_ = false;
    bool writable_ = false;
    std::shared_ptr<std::istream> inputStream_;
    std::shared_ptr<std::ostream> outputStream_;
    int connectTimeout_;
    int readTimeout_ = 0;
    std::string name_;
    std::string prefix_;
    // close() takes these from another thread while the owner reads or writes.
    std::atomic<NativeHandle> pipeHandle_{INVALID_NATIVE_HANDLE};
    std::atomic<NativeHandle> eventHandle_{INVALID_NATIVE_HANDLE};
};

}  // namespace Quovane::Io
