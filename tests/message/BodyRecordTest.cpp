#include "message/BodyRecord.h"

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <string>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::BodyRecord;

TEST(BodyRecord, HasEveryPieceAlsoOneOfAByte) {
    const LogCapture log(LogCapture::LoggingLevel::INFO, LogCapture::CommunicationLevel::OUTPUT);
    BodyRecord record;
    record.start();
    record.add("a", 1);
    record.add("", 0);
    record.add("bc", 2);
    record.log();
    EXPECT_EQ(log.communication(), "abc\n");
}

}  // namespace
}  // namespace qvtp_test
