#include <qvtp/client/QvtpConnectionManager.h>

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

namespace {

using Quovane::Qvtp::QvtpConnectionManager;
using qvtp_test::virtualSlot;

TEST(QvtpConnectionManager, OffersItsOperationsInAFixedOrder) {
    EXPECT_EQ(virtualSlot(&QvtpConnectionManager::getPipe), 1);
    EXPECT_EQ(virtualSlot(&QvtpConnectionManager::returnPipe), 2);
    EXPECT_EQ(virtualSlot(&QvtpConnectionManager::removePipe), 3);
}

}  // namespace
