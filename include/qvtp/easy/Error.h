#pragma once

#include <qvtp/platform/PipeFacts.h>

#include <stdexcept>
#include <string>

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
    cut_off,          ///< a body ended before its end. Of a reply: the server has acted
    closed,           ///< Client::close() was called
    misuse,           ///< a mistake in the program; the text says which
    name_taken,       ///< another server has the name
    bad_directory,    ///< Linux: the pipe directory, or a file in it, is refused. Nothing was sent
};

/// The name of a kind as it is written above.
inline const char* nameOf(ErrorKind kind) {
    constexpr const char* NAMES[] = {
        "no_server",       "busy",    "denied", "timed_out", "not_sent",   "unknown_outcome",
        "malformed_reply", "cut_off", "closed", "misuse",    "name_taken", "bad_directory"};
    return NAMES[static_cast<int>(kind)];
}

/// Every failure of the easy face. what() says in English, for people, what failed, on which pipe, at which path, and
/// what helps; programs look at kind(). std::bad_alloc, and what the program's own callbacks throw, pass as they are.
class Error : public std::runtime_error {
  public:
    Error(ErrorKind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}

    ErrorKind kind() const noexcept { return kind_; }
    /// Whether the request may be sent again without the danger that a handler sees it twice: no byte of it has left.
    /// True for no_server, busy, denied, not_sent and bad_directory. Of these, busy and not_sent pass by themselves.
    /// False for all others: something may have arrived, or (misuse, closed) a new try fails in the same way.
    bool safe_to_retry() const noexcept {
        return kind_ == ErrorKind::no_server || kind_ == ErrorKind::busy || kind_ == ErrorKind::denied ||
               kind_ == ErrorKind::not_sent || kind_ == ErrorKind::bad_directory;
    }

  private:
    ErrorKind kind_;
};

namespace detail {
namespace io = Quovane::Io;

/// What failed, the pipe with its path, what the system knows of it, and what helps.
inline Error errorOf(ErrorKind kind, const std::string& pipe, const std::string& text, const std::string& advice) {
    const io::PipeFacts facts = io::findPipeFacts(pipe);
    const std::string reason = facts.reason + (facts.reason.empty() || advice.empty() ? "" : " ");
    return Error(kind, text + " Pipe \"" + pipe + "\" (" + facts.path + "). " + reason + advice);
}
}  // namespace detail
}  // namespace qvtp
