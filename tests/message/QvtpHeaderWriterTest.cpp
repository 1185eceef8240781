#include "message/QvtpHeaderWriter.h"

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

namespace {

using Quovane::Internal::Qvtp::QvtpHeaderWriter;
using qvtp_test::virtualSlot;

TEST(QvtpHeaderWriter, OffersItsOperationAfterItsDestructor) {
    EXPECT_EQ(virtualSlot(&QvtpHeaderWriter::writeHeaders), 1);
}

}  // namespace
