#include <qvtp/message/QvtpMessageOut.h>

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

namespace {

using Quovane::Qvtp::QvtpMessageOut;
using qvtp_test::virtualSlot;

TEST(QvtpMessageOut, OffersItsOperationsInAFixedOrder) {
    EXPECT_EQ(virtualSlot(&QvtpMessageOut::getStartLine), 1);
    EXPECT_EQ(virtualSlot(&QvtpMessageOut::addHeader), 2);
    EXPECT_EQ(virtualSlot(&QvtpMessageOut::setHeader), 3);
    EXPECT_EQ(virtualSlot(&QvtpMessageOut::removeHeader), 4);
    EXPECT_EQ(virtualSlot(&QvtpMessageOut::setBody), 5);
    EXPECT_EQ(virtualSlot(&QvtpMessageOut::isCommitted), 6);
}

}  // namespace
