#include <qvtp/server/QvtpHandler.h>

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

namespace {

using Quovane::Qvtp::QvtpHandler;
using qvtp_test::virtualSlot;

TEST(QvtpHandler, OffersItsOperationsInAFixedOrder) {
    EXPECT_EQ(virtualSlot(&QvtpHandler::handleNotify), 1);
    EXPECT_EQ(virtualSlot(&QvtpHandler::handlePost), 2);
}

}  // namespace
