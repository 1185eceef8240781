#pragma once

#include <qvtp/easy/Options.h>
#include <qvtp/io/QvPipe.h>

#include <list>
#include <mutex>

namespace qvtp::detail {

/// A pipe with the buffers of its streams.
struct Connection {
    void connect(const std::string& pipeName, int timeoutMs) {
        pipe.setConnectTimeout(timeoutMs);
        pipe.connect(pipeName, isReadable(), true);
        pipe.getOutputStream()->rdbuf()->pubsetbuf(output, sizeof output);
        if (isReadable()) pipe.getInputStream()->rdbuf()->pubsetbuf(input, sizeof input);
        isOpen = true;
    }
    bool isReadable() const { return mode == "rw"; }

    const std::string mode;  // "w" or "rw", as in QvtpConnectionManager
    bool isOpen = false, isIdle = false;
    std::chrono::steady_clock::time_point lastUsed{};
    const std::int64_t process = io::currentProcessId();
    char input[4096] = {}, output[4096] = {};
    io::QvPipe pipe{};  // last: it goes before the buffers
};

/// The connections of one client. Any thread may use it.
class Connections {
  public:
    explicit Connections(Milliseconds idleTimeout) : idleTimeout_(idleTimeout) {}

    /// The one that was used last, so that those that are not needed grow old, else a new one that is not open; null
    /// after close(). In a forked child those of the parent are dropped, which does them no harm.
    Connection* take(const std::string& mode) {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (closed_) return nullptr;
        const auto now = std::chrono::steady_clock::now();
        all_.remove_if([&, process = io::currentProcessId()](const Connection& connection) {
            return connection.process != process || (connection.isIdle && now - connection.lastUsed > idleTimeout_);
        });
        const auto isFitting = [&](const Connection& connection) {
            return connection.isIdle && connection.mode == mode;
        };
        auto found = std::find_if(all_.begin(), all_.end(), isFitting);
        if (found == all_.end()) found = all_.insert(found, Connection{mode});
        found->isIdle = false;
        return &*found;
    }
    void giveBack(Connection& connection, bool isReusable) {
        const std::lock_guard<std::mutex> guard(mutex_);
        const auto place =
            std::find_if(all_.begin(), all_.end(), [&](Connection& each) { return &each == &connection; });
        connection.isIdle = true;
        connection.lastUsed = std::chrono::steady_clock::now();
        if (isReusable && !closed_) return all_.splice(all_.begin(), all_, place);
        all_.erase(place);
    }
    void close() {
        const std::lock_guard<std::mutex> guard(mutex_);
        closed_ = true;
        for (Connection& connection : all_) connection.pipe.close();
    }
    bool isClosed() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return closed_;
    }

  private:
    const Milliseconds idleTimeout_;
    mutable std::mutex mutex_;  // guards the rest, and isIdle and lastUsed of each
    std::list<Connection> all_;
    bool closed_ = false;
};
}  // namespace qvtp::detail
