#pragma once

#include <cstdint>
#include <string>

/// The log lines that tell how much of a body went over a pipe and how fast. Pure functions; times are milliseconds.
namespace Quovane::Internal::Qvtp::Throughput {

/// "Read 2 Kb from the QvPipe (15 Mbps)."
std::string describeRead(std::int64_t bytes, std::int64_t startMs, std::int64_t nowMs);

/// "Wrote 1.5 Kb to the QvPipe (0.0123 Mbps)."
std::string describeWritten(std::uint64_t bytes, std::int64_t startMs, std::int64_t nowMs);

}  // namespace Quovane::Internal::Qvtp::Throughput
