#pragma once

#include "platform/Deadline.h"

#include <optional>

namespace Quovane::Internal::Qvtp {

/// Repeats a step of an operation until it has a result.
template <typename Step>
int untilResult(const Step& step) {
    std::optional<int> result;
    while (!result) result = step();
    return *result;
}

/// Begins an operation and, unless that gave a result, waits for it. A wait that had another reason gives no result.
template <typename Begin, typename Wait>
int beginAndWait(int timeoutMs, const Begin& begin, const Wait& wait) {
    const std::optional<int> result = begin();
    if (result) return *result;
    const Deadline deadline = Deadline::after(timeoutMs);
    return untilResult([&] { return wait(deadline); });
}

}  // namespace Quovane::Internal::Qvtp
