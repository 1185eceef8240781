#include <qvtp/message/QvtpMessageIn.h>

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

namespace {

using Quovane::Qvtp::QvtpMessageIn;
using qvtp_test::virtualSlot;

TEST(QvtpMessageIn, OffersItsOperationsInAFixedOrder) {
    EXPECT_EQ(virtualSlot(&QvtpMessageIn::getStartLine), 1);
    EXPECT_EQ(virtualSlot(&QvtpMessageIn::getHeader), 2);
    EXPECT_EQ(virtualSlot(&QvtpMessageIn::getHeaders), 3);
    EXPECT_EQ(virtualSlot(&QvtpMessageIn::getHeaderNames), 4);
    EXPECT_EQ(virtualSlot(&QvtpMessageIn::getBody), 5);
    EXPECT_EQ(virtualSlot(&QvtpMessageIn::getBodyStream), 6);
}

}  // namespace
