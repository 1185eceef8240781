#pragma once
#include <qvtp/easy/Options.h>
#include <list>

namespace qvtp::detail {
struct Connection {
    void connect(const std::string& pipeName, int timeoutMs) {
        pipe.setConnectTimeout(timeoutMs);
        pipe.connect(pipeName, isReadable, true);
        pipe.getOutputStream()->rdbuf()->pubsetbuf(output, sizeof output);
        if (isReadable) pipe.getInputStream()->rdbuf()->pubsetbuf(input, sizeof input);
        isOpen = true;
    }
    const bool isReadable;  // for POST, else for NOTIFY
    bool isOpen = false, isIdle = false;
    std::chrono::steady_clock::time_point lastUsed{};
    const std::int64_t process = io::currentProcessId();
    char input[4096] = {}, output[4096] = {};
    io::QvPipe pipe{};  // last: it goes before the buffers
};
/// The connections of one client. Any thread may use it.
class Connections {
  public:
    explicit Connections(Milliseconds idleTimeout) : idleTimeout_(numberOf(idleTimeout)) {}
    /// The one used last, so that those that are not needed grow old, or a new one that is not open. In a forked child
    /// those of the parent are dropped, which does them no harm.
    Connection& take(bool isReadable) {
        const std::lock_guard<std::mutex> guard(mutex_);
        const auto oldest = std::chrono::steady_clock::now() - idleTimeout_;
        all_.remove_if([&, process = io::currentProcessId()](const Connection& each) {
            return each.process != process || (idleTimeout_.count() > 0 && each.isIdle && each.lastUsed < oldest);
        });
        const auto isFitting = [&](const Connection& each) { return each.isIdle && each.isReadable == isReadable; };
        auto found = std::find_if(all_.begin(), all_.end(), isFitting);
        if (found == all_.end()) found = all_.insert(found, Connection{isReadable});
        found->isIdle = false;
        return *found;
    }
    void giveBack(const Connection& connection, bool isReusable) {
        const std::lock_guard<std::mutex> guard(mutex_);
        const auto place = std::find_if(all_.begin(), all_.end(), [&](auto& each) { return &each == &connection; });
        place->isIdle = true;
        place->lastUsed = std::chrono::steady_clock::now();
        if (isReusable && !isClosed) return all_.splice(all_.begin(), all_, place);
        all_.erase(place);
    }
    void close() {
        const std::lock_guard<std::mutex> guard(mutex_);
        isClosed = true;
        for (Connection& connection : all_) connection.pipe.close();
    }
    std::atomic<bool> isClosed{false};

  private:
    const Milliseconds idleTimeout_;  // 0: without limit
    std::mutex mutex_;                // guards the list, and isIdle and lastUsed of each
    std::list<Connection> all_;
};
}  // namespace qvtp::detail
