#include "message/MessageBounds.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::MessageBounds::areWholeMessages;

const std::string KNOWN = "NOTIFY /n QVTP/1.0\r\nContent-Length: 5\r\n\r\nhello";
const std::string CHUNKED =
    "POST /p QVTP/1.0\nTRANSFER-encoding : chunked\n\n5\r\nhello\r\nA\r\n0123456789\r\n0\r\n\r\n";
const std::string EMPTY = "NOTIFY /n QVTP/1.0\r\nUser-Agent: a\r\nContent-Length: 0\r\nX: y\r\n\r\n";

TEST(MessageBounds, AreFoundWhereverTheLastMessageIsCut) {
    EXPECT_TRUE(areWholeMessages(""));
    const std::string all = KNOWN + CHUNKED + EMPTY + KNOWN;
    for (std::size_t size = 1; size <= all.size(); ++size) {
        const bool isEnd = size == KNOWN.size() || size == KNOWN.size() + CHUNKED.size() ||
                           size == all.size() - KNOWN.size() || size == all.size();
        EXPECT_EQ(areWholeMessages(all.substr(0, size)), isEnd) << all.substr(0, size);
    }
}

TEST(MessageBounds, AreInDoubtIfAHeadAnnouncesNoLength) {
    const auto message = [](const std::string& headers) { return "NOTIFY /n QVTP/1.0\r\n" + headers + "\r\n"; };
    EXPECT_FALSE(areWholeMessages(message("")));
    EXPECT_FALSE(areWholeMessages(message("Content-Length:\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Content-Length\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Content-Length: -1\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Content-Lengthy: 0\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Transfer-Encoding: gzip\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Content-Length: 0\r\nContent-Length: 0\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Content-Length: 0\r\nTransfer-Encoding: chunked\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Content-Length: -1\r\nContent-Length: 0\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Content-Length: ,5\r\nContent-Length: 0\r\n")));
    EXPECT_FALSE(areWholeMessages(message("Content-Length: abc\r\nTransfer-Encoding: chunked\r\n") + "0\r\n\r\n"));
    EXPECT_FALSE(areWholeMessages(message("Content-Length:\r\n 100\r\nX: y\r\n Content-Length: 0\r\n")));
    EXPECT_FALSE(areWholeMessages(message("X: y\r\n\tContent-Length: 0\r\n")));
    EXPECT_FALSE(areWholeMessages("Content-Length: 0\r\nX: y\r\n\r\n"));  // that is a start line
    EXPECT_TRUE(areWholeMessages(message("Content-Length: 0\r\n")));
}

TEST(MessageBounds, DoNotDependOnEmptyLinesBeforeAMessage) {
    EXPECT_TRUE(areWholeMessages("\r\n\n" + KNOWN + "\r\n" + EMPTY + "\n"));
    EXPECT_TRUE(areWholeMessages("\r\n\r"));
    EXPECT_FALSE(areWholeMessages("\r\n" + KNOWN + "\r\nP"));
    EXPECT_FALSE(areWholeMessages("\r\n" + KNOWN.substr(0, KNOWN.size() - 1)));
}

/// Its connection ends there.
TEST(MessageBounds, EndWithChunksThatCannotBeRead) {
    const std::string head = "NOTIFY /n QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_TRUE(areWholeMessages(head + "123456789\r\n" + KNOWN.substr(0, 3)));
    EXPECT_FALSE(areWholeMessages(head + std::string(19, '0')));
    EXPECT_TRUE(areWholeMessages(head + std::string(20, '0')));
    EXPECT_TRUE(areWholeMessages(head + std::string(19, '0') + "5\r\n"));
}

}  // namespace
}  // namespace qvtp_test
