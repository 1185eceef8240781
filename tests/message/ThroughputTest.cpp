#include "message/Throughput.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

namespace Throughput = Quovane::Internal::Qvtp::Throughput;

constexpr std::int64_t KB = 1024;
constexpr std::int64_t MB = 1024 * 1024;

/// The size in a line of either direction: at the same moment, the rate is 0.
std::string sizeRead(std::int64_t bytes) {
    return Throughput::describeRead(bytes, 5, 5);
}
std::string sizeWritten(std::uint64_t bytes) {
    return Throughput::describeWritten(bytes, 5, 5);
}

TEST(ThroughputRead, ChangesItsUnitAt1024Twice) {
    EXPECT_EQ(sizeRead(0), "Read 0 bytes from the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(1023), "Read 1023 bytes from the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(1024), "Read 1 Kb from the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(2048), "Read 2 Kb from the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(1023 * KB), "Read 1023 Kb from the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(MB), "Read 1 Mb from the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(1024 * MB), "Read 1024 Mb from the QvPipe (0 Mbps).");
}

TEST(ThroughputWritten, ChangesItsUnitAt1024Twice) {
    EXPECT_EQ(sizeWritten(0), "Wrote 0 bytes to the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeWritten(1023), "Wrote 1023 bytes to the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeWritten(1024), "Wrote 1 Kb to the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeWritten(2048), "Wrote 2 Kb to the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeWritten(1023 * KB), "Wrote 1023 Kb to the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeWritten(MB), "Wrote 1 Mb to the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeWritten(3 * MB), "Wrote 3 Mb to the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeWritten(1024 * MB), "Wrote 1024 Mb to the QvPipe (0 Mbps).");
}

TEST(ThroughputSize, HasSixSignificantDigits) {
    EXPECT_EQ(sizeWritten(1536), "Wrote 1.5 Kb to the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(1025), "Read 1.00098 Kb from the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(MB - 1), "Read 1024 Kb from the QvPipe (0 Mbps).");
    EXPECT_EQ(sizeRead(2000000 * MB), "Read 2e+06 Mb from the QvPipe (0 Mbps).");
}

TEST(ThroughputRead, DividesTheRateBy1024TwiceAndCutsItToAWholeNumber) {
    EXPECT_EQ(Throughput::describeRead(MB, 1000, 2000), "Read 1 Mb from the QvPipe (8 Mbps).");
    EXPECT_EQ(Throughput::describeRead(2048, 1000, 1001), "Read 2 Kb from the QvPipe (15 Mbps).");
    EXPECT_EQ(Throughput::describeRead(MB, 1000, 2001), "Read 1 Mb from the QvPipe (7 Mbps).");
    EXPECT_EQ(Throughput::describeRead(MB, 1000, 1500), "Read 1 Mb from the QvPipe (16 Mbps).");
    EXPECT_EQ(Throughput::describeRead(100, 1000, 2000), "Read 100 bytes from the QvPipe (0 Mbps).");
}

TEST(ThroughputWritten, DividesTheRateBy1024And12024AndPrintsItAsAFraction) {
    EXPECT_EQ(Throughput::describeWritten(12024 * KB / 8, 1000, 2000), "Wrote 1.46777 Mb to the QvPipe (1 Mbps).");
    EXPECT_EQ(Throughput::describeWritten(MB, 1000, 2000), "Wrote 1 Mb to the QvPipe (0.681304 Mbps).");
    EXPECT_EQ(Throughput::describeWritten(1536, 1000, 2000), "Wrote 1.5 Kb to the QvPipe (0.000998004 Mbps).");
    EXPECT_EQ(Throughput::describeWritten(MB, 1000, 1001), "Wrote 1 Mb to the QvPipe (681.304 Mbps).");
    EXPECT_EQ(Throughput::describeWritten(100, 1000, 2000), "Wrote 100 bytes to the QvPipe (6.49742e-05 Mbps).");
}

TEST(ThroughputRate, IsZeroWhenNoTimePassedOrTheClockWentBack) {
    EXPECT_EQ(Throughput::describeRead(MB, 1000, 1000), "Read 1 Mb from the QvPipe (0 Mbps).");
    EXPECT_EQ(Throughput::describeRead(MB, 1000, 999), "Read 1 Mb from the QvPipe (0 Mbps).");
    EXPECT_EQ(Throughput::describeWritten(MB, 1000, 1000), "Wrote 1 Mb to the QvPipe (0 Mbps).");
    EXPECT_EQ(Throughput::describeWritten(MB, 1000, 999), "Wrote 1 Mb to the QvPipe (0 Mbps).");
}

TEST(ThroughputWritten, TakesItsBytesUnsigned) {
    EXPECT_EQ(sizeWritten(std::numeric_limits<std::uint64_t>::max()), "Wrote 1.75922e+13 Mb to the QvPipe (0 Mbps).");
}

TEST(ThroughputRate, IsComputedInSinglePrecisionFromTimesOfAnyDay) {
    const std::int64_t today = 1480930201000;
    // A thousandth is a little more than 0.001 in single precision.
    EXPECT_EQ(Throughput::describeRead(MB, today, today + 1), "Read 1 Mb from the QvPipe (7999 Mbps).");
}

}  // namespace
