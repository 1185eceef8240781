#include <qvtp/io/QvPipeException.h>

#include "message/IncomingMessage.h"
#include "support/LogCapture.h"
#include "support/OutOfMemory.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

/// What getBody() throws when there is no memory for blocks of this size.
std::string thrownByBody(IncomingMessage& message, std::size_t size) {
    message->getStartLine();
    char* data = nullptr;
    std::size_t length = 77;
    const std::string thrown = thrownBy([&] {
        const OutOfMemory memory(1, OutOfMemory::FROM_THEN_ON, size);
        message->getBody(&data, length);
    });
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 77U);
    return thrown;
}

TEST(BodyWithoutMemory, IsAFailureOfGetBodyThatNamesItsLength) {
    IncomingMessage message("POST /a QVTP/1.0\r\nContent-Length: 1500000000\r\n\r\n");
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    EXPECT_EQ(thrownByBody(message, 1000000), "QvPipeException: Not enough memory for a body of 1500000000 bytes.");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Not enough memory for a body of 1500000000 bytes."));
}

TEST(BodyWithoutMemory, NamesHowMuchOfAChunkedOneWasRead) {
    const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
    IncomingMessage message("POST /a QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk + chunk + "0\r\n\r\n",
                            4096);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    EXPECT_EQ(thrownByBody(message, 100000),
              "QvPipeException: Not enough memory for a body of which 81920 bytes were read.");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Not enough memory for a body of which 81920 bytes were read."));
}

TEST(BodyWithoutMemory, NamesNothingReadOfAChunkedOneWithoutAFirstBlock) {
    IncomingMessage message("POST /a QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
    EXPECT_EQ(thrownByBody(message, 40000),
              "QvPipeException: Not enough memory for a body of which 0 bytes were read.");
}

TEST(BodyWithoutMemory, IsAFailureOfGetBodyWhicheverAllocationFails) {
    for (const char* head : {"Content-Length: 5\r\n\r\nhello", "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"}) {
        bool failed = true;
        for (long n = 1; failed; ++n) {
            IncomingMessage message(std::string("POST /a QVTP/1.0\r\n") + head);
            message->getStartLine();
            char* data = nullptr;
            std::size_t length = 0;
            const std::string thrown = thrownBy([&] {
                const OutOfMemory memory(n, OutOfMemory::ONCE);
                try {
                    message->getBody(&data, length);
                } catch (...) {
                    failed = memory.hasFailed();
                    throw;
                }
                failed = memory.hasFailed();
            });
            const std::unique_ptr<char[]> body(data);
            EXPECT_EQ(thrown.substr(0, 38), failed ? "QvPipeException: Not enough memory for" : "nothing") << n;
        }
    }
}

}  // namespace
}  // namespace qvtp_test
