#include <qvtp/client/AbstractQvtpRequest.h>
#include <qvtp/client/NotifyRequest.h>
#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpClient.h>

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

namespace {

using Quovane::Qvtp::AbstractQvtpRequest;
using Quovane::Qvtp::NotifyRequest;
using Quovane::Qvtp::PostRequest;
using Quovane::Qvtp::QvtpClient;
using qvtp_test::virtualSlot;

TEST(AbstractQvtpRequest, HasHeadersAndAResourceInBothKinds) {
    QvtpClient client;
    NotifyRequest notify(&client, "pipe", "/before");
    PostRequest post(&client, "pipe", "/before");
    for (AbstractQvtpRequest* const request :
         {static_cast<AbstractQvtpRequest*>(&notify), static_cast<AbstractQvtpRequest*>(&post)}) {
        EXPECT_EQ(request->getResource(), "/before");
        request->setResource("/after");
        EXPECT_EQ(request->getResource(), "/after");
        EXPECT_EQ(request->getStartLine(), request->getMethod() + " /after QVTP/1.0");
        request->addHeader("X-One", "1");
        request->addHeader("X-One", "2");
        request->setHeader("X-Two", "3");
        request->removeHeader("X-One");
        EXPECT_FALSE(request->isCommitted());
    }
}

TEST(AbstractQvtpRequest, AddsItsOperationsAfterThoseOfAMessageInAFixedOrder) {
    EXPECT_EQ(virtualSlot(&AbstractQvtpRequest::getMethod), 7);
    EXPECT_EQ(virtualSlot(&AbstractQvtpRequest::setResource), 8);
    EXPECT_EQ(virtualSlot(&AbstractQvtpRequest::getResource), 9);
    EXPECT_EQ(virtualSlot(&AbstractQvtpRequest::setBodyStream), 10);
}

}  // namespace
