#pragma once

#include <functional>

namespace qvtp_test {

/// Starts a forked child (on Linux only) that runs an action and ends with its result, without the clean-up of the
/// parent's objects. What the action throws makes the result 255. A child has no watchdog: it is killed after a minute.
/// It is forked when all other threads of this process sleep.
int startChild(const std::function<int()>& action);

/// The same without waiting for that: for a test of what other threads were doing.
int startChildAtOnce(const std::function<int()>& action);

/// Waits for the child. -1: it did not end by itself.
int resultOf(int child);

int resultInChild(const std::function<int()>& action);

}  // namespace qvtp_test
