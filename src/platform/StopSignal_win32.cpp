#include <qvtp/platform/StopSignal.h>

#include <windows.h>

#include <atomic>
#include <csignal>
#include <iterator>
#include <mutex>
#include <system_error>

namespace Quovane::Io {

namespace {

/// An event that stays set.
class Event {
  public:
    Event() : handle_(::CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
        if (handle_ != nullptr) return;
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), "no event for signals");
    }
    ~Event() { ::CloseHandle(handle_); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    HANDLE get() const { return handle_; }

  private:
    const HANDLE handle_;
};

/// The use of the console's signals by all objects. The system calls its handler on a thread of its own.
class Use {
  public:
    /// Never freed: objects may be static.
    static Use& get() {
        static Use* const use = new Use;
        return *use;
    }

    void begin() {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (users_ == 0) {
            received_ = 0;
            ::ResetEvent(event_.get());
            ::SetConsoleCtrlHandler(receive, TRUE);  // without a console there is nothing to receive
        }
        ++users_;
    }

    void end() {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (--users_ == 0) ::SetConsoleCtrlHandler(receive, FALSE);
    }

    HANDLE event() const { return event_.get(); }
    int received() const { return received_; }

  private:
    Use() = default;

    static BOOL WINAPI receive(DWORD type) {
        Use& use = get();
        use.received_ = type == CTRL_C_EVENT ? SIGINT : SIGTERM;
        ::SetEvent(use.event());
        // After the end of a console or a session the system ends the process as soon as this returns.
        if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT) ::Sleep(INFINITE);
        return TRUE;
    }

    Event event_;
    std::atomic<int> received_{0};
    std::mutex mutex_;  // guards users_
    int users_ = 0;
};

}  // namespace

struct StopSignal::State {
    State() { Use::get().begin(); }
    ~State() { Use::get().end(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    Event woken;
};

StopSignal::StopSignal() : state_(std::make_unique<State>()) {}

StopSignal::~StopSignal() = default;

int StopSignal::wait(int milliseconds) {
    const HANDLE events[] = {Use::get().event(), state_->woken.get()};
    const DWORD limit = milliseconds > 0 ? static_cast<DWORD>(milliseconds) : INFINITE;
    const DWORD waited = ::WaitForMultipleObjects(static_cast<DWORD>(std::size(events)), events, FALSE, limit);
    return waited == WAIT_OBJECT_0 ? Use::get().received() : 0;
}

void StopSignal::wake() {
    ::SetEvent(state_->woken.get());
}

}  // namespace Quovane::Io
