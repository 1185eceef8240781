#include <qvtp/client/AbstractQvtpRequest.h>

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

namespace {

using Quovane::Qvtp::AbstractQvtpRequest;
using qvtp_test::virtualSlot;

TEST(AbstractQvtpRequest, AddsItsOperationsAfterThoseOfAMessageInAFixedOrder) {
    EXPECT_EQ(virtualSlot(&AbstractQvtpRequest::getMethod), 7);
    EXPECT_EQ(virtualSlot(&AbstractQvtpRequest::setResource), 8);
    EXPECT_EQ(virtualSlot(&AbstractQvtpRequest::getResource), 9);
    EXPECT_EQ(virtualSlot(&AbstractQvtpRequest::setBodyStream), 10);
}

}  // namespace
