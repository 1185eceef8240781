#pragma once

#include <qvtp/Export.h>

#include <memory>

namespace Quovane::Io {

/// The wish of the user or the system that this process ends: SIGINT and SIGTERM; on Windows Ctrl-C, Ctrl-Break, and
/// the end of the console or the session.
///
///     StopSignal stop;
///     stop.wait(0);  // until somebody presses Ctrl-C
///
/// While there is an object of this class, such a signal ends its wait() and does nothing else. With the last object
/// the handling of signals is again what it was before the first. On Linux a signal that the process ignores stays
/// ignored, one that every thread blocks does not come, and a handler that somebody has set meanwhile stays. On Windows
/// the system ends the process some seconds after the end of its console or session, whatever the program does.
///
/// The constructor throws std::system_error if the system has no means left, or std::bad_alloc. Objects are independent
/// of each other: a signal ends the waits of all. In a forked child the signals do what they did before the first
/// object, until it makes objects of its own. Those of the parent are of no use there, and may be destroyed. A fork may
/// happen at any time, whatever other threads do with this class.
class QVTP_API StopSignal {
  public:
    StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;
    ~StopSignal();

    /// Waits for a signal, also for one that came before, since the first object was made. `milliseconds`: 0 and below
    /// without limit. Returns the signal's number (2 for SIGINT and Ctrl-C, 15 for all others); 0 if wake() was called
    /// or the time is over. One thread at a time.
    int wait(int milliseconds);
    /// Ends the wait, now or the next, and all after it. From any thread. Throws nothing.
    void wake();

  private:
    struct QVTP_HIDDEN State;
    std::unique_ptr<State> state_;
};

}  // namespace Quovane::Io
