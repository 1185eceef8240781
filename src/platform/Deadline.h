#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace Quovane::Internal::Qvtp {

/// A point on the monotonic clock, or never.
class Deadline {
  public:
    /// `milliseconds`: 0 is never. A negative value is taken as unsigned, which is practically never.
    static Deadline after(int milliseconds) {
        Deadline deadline;
        if (milliseconds != 0) {
            deadline.at_ = Clock::now() + std::chrono::milliseconds(static_cast<std::uint32_t>(milliseconds));
        }
        return deadline;
    }

    bool isUnlimited() const { return !at_.has_value(); }

    /// The time left, 0 when it is over. Only for a limited deadline.
    std::chrono::nanoseconds left() const {
        const auto left = *at_ - Clock::now();
        return left > Clock::duration::zero() ? left : Clock::duration::zero();
    }

    bool isOver() const { return at_.has_value() && left() == std::chrono::nanoseconds::zero(); }

  private:
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> at_;
};

}  // namespace Quovane::Internal::Qvtp
