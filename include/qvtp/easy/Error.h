#pragma once
#include <qvtp/qvtp.h>
#include <stdexcept>

namespace qvtp {
/// Why a call has failed. docs/easy.md has the causes and remedies.
enum class ErrorKind {
    no_server,        ///< nobody serves the name. Nothing was sent
    busy,             ///< the server took no connection within the connect time-out. Nothing was sent
    denied,           ///< the system, or the server's direction, refuses the pipe. Nothing was sent
    timed_out,        ///< no reply, or no more of it, in time. The server may have acted
    not_sent,         ///< the connection failed before the first byte had left. Nothing was sent
    unknown_outcome,  ///< the connection broke before the head of the reply. The server may have acted
    malformed_reply,  ///< the reply is none of this protocol. The server may have acted
    cut_off,          ///< the reply ended before its end. The server has acted
    closed,           ///< Client::close() was called
    misuse,           ///< a mistake in the program; the text says which
    name_taken,       ///< another server has the name
    bad_directory,    ///< Linux: the pipe directory, or a file in it, is refused. Nothing was sent
};
/// Every failure of the easy face. what() says what failed, on which pipe, at which path, and what helps; programs look
/// at kind(). std::bad_alloc, and what the program's own callbacks throw, pass as they are.
class Error : public std::runtime_error {
  public:
    Error(ErrorKind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
    ErrorKind kind() const noexcept { return kind_; }
    /// Whether it may be sent again: no byte has left, so that no handler sees it twice. False for misuse and closed.
    bool safe_to_retry() const noexcept {
        return kind_ == ErrorKind::no_server || kind_ == ErrorKind::busy || kind_ == ErrorKind::denied ||
               kind_ == ErrorKind::not_sent || kind_ == ErrorKind::bad_directory;
    }

  private:
    ErrorKind kind_;
};
namespace detail {
namespace io = Quovane::Io;
/// Its name, and what it means and asks for.
inline std::pair<std::string, std::string> textsOf(ErrorKind kind) {
    static const std::pair<const char*, const char*> TEXTS[] = {
        {"no_server", "There is no server: start it, as the same user and with the same QVTP_PIPE_DIR."},
        {"busy", "The server took no connection in time: give it more workers, or the client more time."},
        {"denied", "Access is denied: the server takes only NOTIFY, or the system refuses the pipe."},
        {"timed_out", "There was no answer in time, and the server may have acted: it is busy, or its handler hangs."},
        {"not_sent", "Nothing was sent: try again. The server is starting or stopping, or the system at a limit."},
        {"unknown_outcome", "The server may have acted, and has failed or stopped then: look at its log."},
        {"malformed_reply", "The reply does not follow the protocol: the server is faulty, or speaks another one."},
        {"cut_off", "The reply was cut off: the server has failed or stopped then. Look at its log."},
        {"closed", "The client was closed: make a new one."},
        {"misuse", "This is a mistake in the program."},
        {"name_taken", "Another server has this name: stop it and wait for its end, or use another name."},
        {"bad_directory", "The pipe directory cannot be used: correct it, or set QVTP_PIPE_DIR to another."}};
    return TEXTS[static_cast<int>(kind)];
}
/// What failed and why, the pipe with its path, what the system knows of it, and what helps.
inline Error errorOf(ErrorKind kind, const std::string& pipe, const std::string& text) {
    const io::PipeFacts facts = io::findPipeFacts(pipe);
    const bool isPlain = facts.reason.empty() || kind == ErrorKind::no_server;
    const std::string reason = isPlain ? "" : facts.reason + " ";
    const char* const end = text.back() == '.' ? " " : ". ";
    return Error(kind, text + end + "Pipe \"" + pipe + "\" (" + facts.path + "). " + reason + textsOf(kind).second);
}
}  // namespace detail
/// The name of a kind as it is written above.
inline std::string nameOf(ErrorKind kind) {
    return detail::textsOf(kind).first;
}
}  // namespace qvtp
