#include "message/Throughput.h"

#include "common/Text.h"

namespace Quovane::Internal::Qvtp::Throughput {

namespace {

constexpr float PER_1024 = 1.0F / 1024;
// The outgoing figure has this divisor where the incoming one has 1024: log readers know the two apart.
constexpr float OUTGOING_DIVISOR = 12024;

std::string describeSize(float size) {
    const char* unit = "bytes";
    for (const char* larger : {"Kb", "Mb"}) {
        if (size < 1024) break;
        size *= PER_1024;
        unit = larger;
    }
    return text(size, " ", unit);
}

float seconds(std::int64_t startMs, std::int64_t nowMs) {
    return static_cast<float>(nowMs - startMs) / 1000;
}

}  // namespace

std::string describeRead(std::int64_t bytes, std::int64_t startMs, std::int64_t nowMs) {
    const auto size = static_cast<float>(bytes);
    float rate = 0;
    if (nowMs > startMs) rate = size * 8 * PER_1024 * PER_1024 / seconds(startMs, nowMs);
    return text("Read ", describeSize(size), " from the QvPipe (", static_cast<std::int64_t>(rate), " Mbps).");
}

std::string describeWritten(std::uint64_t bytes, std::int64_t startMs, std::int64_t nowMs) {
    const auto size = static_cast<float>(bytes);
    float rate = 0;
    if (nowMs > startMs) rate = size * 8 * PER_1024 / OUTGOING_DIVISOR / seconds(startMs, nowMs);
    return text("Wrote ", describeSize(size), " to the QvPipe (", rate, " Mbps).");
}

}  // namespace Quovane::Internal::Qvtp::Throughput
