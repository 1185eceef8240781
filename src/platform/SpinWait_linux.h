#pragma once

#include <chrono>

/// Trying to receive for some microseconds before a wait blocks. Where two processes talk on two processors it saves
/// the time in which the system puts a thread to sleep and wakes it, several times what the rest of an exchange takes.
/// It costs processor time when nothing comes, so the process keeps a score of the tries that paid, and stops trying
/// while they do not. From then on only a few waits try, to see whether that has changed.
///
/// Nor does a wait try while several threads of the process exchange messages, if there are more of them and of their
/// peers than processors. A thread that tries would keep another from running. The peers are taken to be other
/// processes: a process that talks to itself counts twice what it has.
///
/// Never where the process may use one processor only. The environment variable QVTP_SPIN=0, read once, switches it
/// off.
namespace Quovane::Internal::Qvtp::SpinWait {

/// How long to try. Longer than the system takes to wake the peer's thread, so that both sides come to try.
inline constexpr std::chrono::microseconds LIMIT{50};

/// One wait of a thread, tries included. It counts the waits of other threads that end meanwhile: that is how many
/// threads exchange messages at the same pace.
class Wait {
  public:
    Wait();
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;
    ~Wait();

  private:
    const unsigned begun_;
};

/// Whether this wait should try. From any thread.
bool isWorthwhile();
/// What became of it.
void record(bool paid);

}  // namespace Quovane::Internal::Qvtp::SpinWait
