#pragma once

#include <chrono>
#include <cstddef>

namespace Quovane::Internal::Qvtp {

/// How the bytes of large writes are cut, so that a writer that waits sees what its reader takes.
///
/// What one send hands over becomes buffers of up to 36 KiB, and the kernel reports a buffer as taken only when its
/// last byte has been read. In pieces of 4096 bytes even a very slow reader shows its progress. But these are several
/// times slower, so a reader that has just taken a lot in a short time gets large buffers, which it reads at once.
///
/// For one thread at a time, the one that writes.
class ReaderPace {
  public:
    static constexpr std::size_t PIECE = 4096;

    /// The most that one send may hand over now.
    std::size_t limit() const;
    /// So many bytes have just been sent on the socket.
    void sent(int fd, std::size_t count);
    /// The reader keeps the writer waiting.
    void stalled() { quickUntil_ = {}; }

  private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point since_{};  // begin of what follows
    std::size_t sent_ = 0;       // bytes since then
    std::size_t sinceLook_ = 0;  // bytes since the last look at what the reader has left
    Clock::time_point quickUntil_{};
};

}  // namespace Quovane::Internal::Qvtp
