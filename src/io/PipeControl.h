#pragma once

#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Quovane::Internal::Qvtp {

class MessageSink;

/// What a read throws that ends because its pipe was closed from this side.
inline constexpr char READ_ABORTED[] = "QvPipe read aborted.";

/// What server and client need of their ends of a connection beyond reading and writing: to wait for a client without
/// taking anything from it, to part from it without losing anything, and to see what a response has left.
class PipeControl {
  public:
    using QvPipe = Quovane::Io::QvPipe;

    enum class Input {
        THERE,      ///< a read will not wait: bytes, the end, or a failure that it reports
        TIMED_OUT,  ///< nothing came, not even in part
        WOKEN,      ///< wake() was called
    };

    /// Waits for the first byte of what comes next. For the thread that reads. `timeoutMs`: 0 waits without limit.
    /// Throws InterruptedException if the pipe is closed meanwhile, as a read does.
    /// What comes is taken into the input stream's area, where that is empty and nothing stands before it. `wakeable`:
    /// false if nobody will call wake() for this wait.
    static Input awaitInput(const QvPipe& pipe, int timeoutMs, bool wakeable);
    /// Ends a running awaitInput(), or else the next one. From any thread.
    static void wake(const QvPipe& pipe);

    /// The short way for whole messages. Null before the output stream is there, if somebody has put a buffer of their
    /// own under it, or if it has failed: then the message goes through the stream.
    static MessageSink* sinkOf(const QvPipe& pipe);

    /// Writes two blocks, one after the other. Throws as QvPipe::writePipe.
    static void write(const QvPipe& pipe, const char* first, std::size_t firstLength, const char* second,
                      std::size_t secondLength);

    /// How many bytes can be read without waiting, besides those that the input stream holds already. For the thread
    /// that reads.
    static std::size_t available(const QvPipe& pipe);
    /// These bytes, which stay there.
    static std::string peek(const QvPipe& pipe);
    /// Whether the input stream's area had room for more than the last read brought: then that was all that had come by
    /// that time. False also after a read past the area. For the thread that reads.
    static bool hadRoomForMore(const QvPipe& pipe);
    /// Breaks the peer's next write. What it wrote before can still be read, and answers still arrive. On Windows it
    /// has no effect.
    static void endReading(const QvPipe& pipe);
    /// Whether the peer has closed its end. Only for a connection that nobody will read any more.
    static bool peerHasClosed(const QvPipe& pipe);

    /// What the system says about the client. -1: nothing.
    struct Peer {
        std::int64_t processId;
        std::int64_t userId;
        std::int64_t groupId;
    };
    static Peer peerOf(const QvPipe& pipe);

    using ServerQvPipe = Quovane::Io::ServerQvPipe;

    /// Whether a client waits to be accepted, or was accepted and has not been given away since. From any thread.
    static bool hasClient(const ServerQvPipe& server);
    /// Whether a client waits to be accepted: it has connected, and may have written.
    static bool hasUnacceptedClient(const ServerQvPipe& server);
    /// The accepted client has its worker now.
    static void giveAway(ServerQvPipe& server);
};

}  // namespace Quovane::Internal::Qvtp
