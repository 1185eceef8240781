#pragma once

#include <qvtp/Export.h>
#include <qvtp/io/QvPipe.h>
#include <qvtp/platform/NativeHandle.h>

#include <atomic>
#include <string>

namespace Quovane::Io {

/// The listening side of a named pipe. It owns one waiting instance at a time: accept() waits on it for a client, hands
/// the connection to a QvPipe, and creates the next instance at once.
///
/// One thread calls accept(); close() may come from any other and ends a blocked accept(). Copies share the handles:
/// the first that is closed or destroyed ends the waiting instance for all. isClosed() reports only its own state.
///
/// On Linux the pipe directory is looked up once, by bind(): what happens later to the environment, the user, the
/// current directory or the directory's mode does not matter. In a forked child accept() fails and close() does
/// nothing.
class QVTP_API ServerQvPipe {
  public:
    /// An unbound server pipe of both directions, without an accept time-out.
    ServerQvPipe();
    /// Binds at once; throws as bind().
    ServerQvPipe(const std::string& name, bool readable, bool writable);
    ServerQvPipe(const ServerQvPipe& other);
    ServerQvPipe& operator=(const ServerQvPipe& other);
    /// Does what close() does.
    ~ServerQvPipe();

    /// Takes the name and creates the first waiting instance; from now on clients connect. `readable`: the server reads
    /// what clients write; `writable`: it writes what they read. Throws IllegalArgumentException if both are false,
    /// IllegalStateException if already bound, BindException if the name is served by anybody or cannot be one.
    void bind(const std::string& name, bool readable, bool writable);
    bool isBound() const;

    /// Waits for the next client, for the accept time-out. The result has a connect time-out of 10000 and no read
    /// time-out. Throws IllegalStateException (not bound, or closed), TimeoutException (the instance waits on, the next
    /// call uses it), InterruptedException (closed during the call), QvPipeException (anything else). Where the reason
    /// of a QvPipeException may last, the call takes 100 ms: a caller may simply try again.
    QvPipe accept();
    /// The same into a pipe of the caller's, which must be unbound: IllegalStateException otherwise. A QvPipeException
    /// "CreateNamedPipe failed" means that the next instance could not be made (the next call tries again); `pipe`
    /// holds the accepted connection then.
    void accept(QvPipe& pipe);

    /// Ends a blocked accept() and gives up the waiting instance, for good. Connections accepted before live on.
    void close();
    bool isClosed() const;

    /// Milliseconds; 0, the default, waits without limit.
    void setAcceptTimeout(int milliseconds);
    int getAcceptTimeout() const;

  private:
    friend class Internal::Qvtp::PipeControl;  // asks for the server whether clients wait

    void bindPipe(const std::string& path, bool first);
    void acceptPipe(const std::string& path, const std::string& displayName, int counter, bool readable, bool writable,
                    int timeoutMs, QvPipe& pipe);
    void ensureInstance(const std::string& path);
    void createNextInstance(const std::string& path);
    void handOver(bool readable, bool writable, QvPipe& pipe);
    void closeHandles();
    void setClosed(bool closed);

    std::string name_;
    bool readable_ = true;
    bool writable_ = true;
    int instanceCounter_ = 0;  // of accepts: to be seen in a debugger, like the display names; nothing depends on it
    int acceptTimeout_ = 0;
    std::string prefix_;
    NativeHandle lastInstance_ = INVALID_NATIVE_HANDLE;  // valid: the name is ours; the next instance joins this one
    std::atomic<bool> handingOver_{false};               // a client was accepted, and has no worker yet
    // close() sets and takes these while another thread is in accept().
    std::atomic<bool> closed_{false};
    std::atomic<NativeHandle> pipeHandle_{INVALID_NATIVE_HANDLE};
    std::atomic<NativeHandle> eventHandle_{INVALID_NATIVE_HANDLE};
};

}  // namespace Quovane::Io
