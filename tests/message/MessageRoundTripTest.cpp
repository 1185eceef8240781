#include "message/IncomingMessage.h"
#include "message/OutgoingMessage.h"
#include "message/QvtpOStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <sstream>
#include <string>

namespace {

using namespace Quovane::Internal::Qvtp;
using namespace qvtp_test;
using ::testing::ElementsAre;

constexpr int BUFFER_SIZE = 16;

std::string randomBytes(std::size_t length, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(length, '\0');
    for (char& c : bytes) c = static_cast<char>(random() % 256);
    return bytes;
}

/// A message framed by its length on the wire.
std::string framedByLength(const std::string& body, int bufferSize = BUFFER_SIZE) {
    std::ostringstream pipe;
    OutgoingMessage message;
    message.addHeader("X-Ids", "a, b");
    message.setBody(body);
    QvtpOStream out(bufferSize, false, &pipe, nullptr);
    message->writeHeaders(&out);
    message->writeBody(&out);
    out.send();
    return pipe.str();
}

/// A chunked message on the wire, its body written in steps.
std::string framedInChunks(const std::string& body, std::size_t step, int bufferSize = BUFFER_SIZE) {
    std::ostringstream pipe;
    OutgoingMessage message;
    message.addHeader("X-Ids", "a, b");
    message.addHeader("Transfer-Encoding", "chunked");
    QvtpOStream out(bufferSize, true, &pipe, message.impl());
    for (std::size_t i = 0; i < body.size(); i += step) {
        out.write(body.data() + i, static_cast<std::streamsize>(std::min(step, body.size() - i)));
    }
    out.send();
    return pipe.str();
}

void expectBody(const std::string& wire, const std::string& body) {
    IncomingMessage whole(wire + "NEXT", BUFFER_SIZE);
    EXPECT_EQ(whole->getStartLine(), "POST /r QVTP/1.0");
    EXPECT_THAT(whole->getHeaders("x-ids"), ElementsAre("a", "b"));
    EXPECT_EQ(whole.body(), body);
    EXPECT_EQ(whole.left(), "NEXT");
    IncomingMessage streamed(wire + "NEXT", BUFFER_SIZE);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*streamed->getBodyStream()), {}), body);
    EXPECT_EQ(streamed.left(), "NEXT");
}

TEST(MessageRoundTrip, GivesBackBodiesOfKnownLengthAroundEveryMultipleOfTheBuffer) {
    for (unsigned size = 0; size <= 3 * BUFFER_SIZE + 1; ++size) {
        const std::string body = randomBytes(size, size);
        expectBody(framedByLength(body), body);
    }
}

TEST(MessageRoundTrip, GivesBackChunkedBodiesAroundEveryMultipleOfTheBuffer) {
    for (unsigned size = 0; size <= 3 * BUFFER_SIZE + 1; ++size) {
        const std::string body = randomBytes(size, size);
        for (const std::size_t step : {1U, 7U, 16U, 17U, 1000U}) expectBody(framedInChunks(body, step), body);
    }
}

TEST(MessageRoundTrip, GivesBackBodiesWrittenWithAnyBuffer) {
    const std::string body = randomBytes(100, 1);
    for (const int bufferSize : {-1, 0, 1, 2, 4, 99, 100, 101, 4096}) {
        expectBody(framedByLength(body, bufferSize), body);
        expectBody(framedInChunks(body, 13, bufferSize), body);
    }
}

TEST(MessageRoundTrip, GivesBackLargeBinaryBodies) {
    const std::string body = randomBytes(300000, 2);
    expectBody(framedByLength(body, 4096), body);
    expectBody(framedInChunks(body, 5000, 4096), body);
}

TEST(MessageRoundTrip, GivesBackMessageAfterMessageOnOnePipe) {
    std::istringstream pipe(framedByLength("one") + framedInChunks("two", 1) + framedByLength("") +
                            framedInChunks("", 1) + framedByLength("last"));
    Quovane::Soa::Common::Xml::Utf8String converter;
    for (const char* body : {"one", "two", "", "", "last"}) {
        QvtpMessageInImpl message(&pipe, BUFFER_SIZE, DirectionLabel::ACCEPT, &converter);
        EXPECT_EQ(example::bodyOf(message), body);
    }
}

TEST(MessageRoundTrip, GivesBackValuesInUtf8) {
    OutgoingMessage message;
    message.addHeader("X", "\xC3\xA4, \xE4, line\r\nend");
    message.setBody("");
    std::ostringstream pipe;
    message->writeHeaders(&pipe);
    IncomingMessage received(pipe.str());
    received->getStartLine();
    EXPECT_THAT(received->getHeaders("X"), ElementsAre("\xC3\xA4", "\xC3\xA4", "line  end"));
}

}  // namespace
