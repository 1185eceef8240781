#include "common/MessageSink.h"

#include <qvtp/io/BrokenPipeException.h>

#include "message/OutgoingMessage.h"
#include "message/QvtpOStream.h"
#include "support/FailingStreamBuf.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <sstream>
#include <string>

namespace {

using namespace Quovane::Internal::Qvtp;
using namespace qvtp_test;
using ::testing::Contains;
using ::testing::Not;
using ::testing::StartsWith;

const std::string BODY = "0123456789abc";
const std::string WHOLE = "POST /r QVTP/1.0\r\nContent-Length: 13\r\n\r\n" + BODY;
const std::size_t HEAD_LENGTH = WHOLE.size() - BODY.size();
const char BROKEN[] = "BrokenPipeException: cut";
constexpr int LARGE_BUFFER = 4096;

/// Takes so many bytes in all, at most some of them with its first call, and is broken then.
class CutSink : public MessageSink {
  public:
    explicit CutSink(std::size_t capacity, std::size_t firstStep = std::string::npos)
        : left_(capacity), firstStep_(firstStep) {}

    std::size_t writeSome(const char* head, std::size_t headLength, const char* body, std::size_t bodyLength) override {
        const std::string both = std::string(head, headLength) + std::string(body, bodyLength);
        const std::size_t count = std::min({both.size(), left_, firstStep_});
        if (count == 0) throw Quovane::Io::BrokenPipeException("cut");
        taken_.append(both, 0, count);
        left_ -= count;
        return count;
    }

    void writeAll(const char* data, std::size_t length) override {
        const std::size_t count = std::min(length, left_);
        taken_.append(data, count);
        left_ -= count;
        if (count < length) throw Quovane::Io::BrokenPipeException("cut");
    }

    const std::string& taken() const { return taken_; }

  private:
    std::size_t left_;
    std::size_t firstStep_;
    std::string taken_;
};

TEST(WholeRequest, IsCommittedExactlyWhenAByteHasLeft) {
    for (std::size_t cut = 0; cut <= WHOLE.size(); ++cut) {
        OutgoingMessage message;
        message.setBody(BODY);
        CutSink sink(cut);
        const LogCapture log;
        const bool isCut = cut < WHOLE.size();
        EXPECT_EQ(thrownBy([&] { EXPECT_TRUE(message->sendWhole(&sink)); }), isCut ? BROKEN : "nothing") << cut;
        EXPECT_EQ(sink.taken(), WHOLE.substr(0, cut));
        EXPECT_EQ(message.isCommitted(), cut > 0) << cut;
        EXPECT_EQ(log.count("DEBUG Send:    POST /r QVTP/1.0"), cut > 0 ? 1 : 0) << cut;
        const auto wrote = Contains(StartsWith("INFO Wrote 13 bytes"));
        if (isCut) {
            EXPECT_THAT(log.messages(), Not(wrote)) << cut;
        } else {
            EXPECT_THAT(log.messages(), wrote);
        }
    }
}

TEST(WholeRequest, IsCommittedExactlyWhenAByteHasLeftInSeveralSteps) {
    for (const std::size_t firstStep : {std::size_t{1}, HEAD_LENGTH - 1, HEAD_LENGTH, HEAD_LENGTH + 1}) {
        for (std::size_t cut = 0; cut <= WHOLE.size(); ++cut) {
            OutgoingMessage message;
            message.setBody(BODY);
            CutSink sink(cut, firstStep);
            const bool isCut = cut < WHOLE.size();
            EXPECT_EQ(thrownBy([&] { message->sendWhole(&sink); }), isCut ? BROKEN : "nothing") << cut;
            EXPECT_EQ(sink.taken(), WHOLE.substr(0, cut));
            EXPECT_EQ(message.isCommitted(), cut > 0) << cut;
        }
    }
}

TEST(WholeRequest, ArrivesOnceHoweverMuchItsFirstStepTakes) {
    for (std::size_t firstStep = 1; firstStep <= WHOLE.size(); ++firstStep) {
        OutgoingMessage request, response;
        request.setBody(BODY);
        response.setBody(BODY);
        CutSink forRequest(std::string::npos, firstStep), forResponse(std::string::npos, firstStep);
        EXPECT_TRUE(request->sendWhole(&forRequest));
        EXPECT_TRUE(response->answerWhole(&forResponse, LARGE_BUFFER));
        EXPECT_EQ(forRequest.taken(), WHOLE);
        EXPECT_EQ(forResponse.taken(), WHOLE);
    }
}

TEST(WholeRequest, IsCommittedWithItsHeadForAnEmptyBody) {
    const std::string head = "POST /r QVTP/1.0\r\nContent-Length: 0\r\n\r\n";
    for (std::size_t cut = 0; cut <= head.size(); ++cut) {
        OutgoingMessage message;
        message.setBody("");
        CutSink sink(cut);
        EXPECT_EQ(thrownBy([&] { message->sendWhole(&sink); }), cut < head.size() ? BROKEN : "nothing") << cut;
        EXPECT_EQ(sink.taken(), head.substr(0, cut));
        EXPECT_EQ(message.isCommitted(), cut > 0) << cut;
    }
}

TEST(WholeResponse, IsCommittedBeforeItIsWritten) {
    for (std::size_t cut = 0; cut <= WHOLE.size(); ++cut) {
        OutgoingMessage message("POST /r QVTP/1.0", DirectionLabel::REPLY);
        message.setBody(BODY);
        CutSink sink(cut);
        const LogCapture log;
        const bool isCut = cut < WHOLE.size();
        EXPECT_EQ(thrownBy([&] { message->answerWhole(&sink, LARGE_BUFFER); }), isCut ? BROKEN : "nothing") << cut;
        EXPECT_EQ(sink.taken(), WHOLE.substr(0, cut));
        EXPECT_TRUE(message.isCommitted()) << cut;
        EXPECT_EQ(log.count("DEBUG Reply:   POST /r QVTP/1.0"), 1) << cut;
    }
}

/// Over a stream the head is the beginning of what is written, and recorded on its own before that: so it is here.
TEST(WholeResponse, IsRecordedWithItsHeadTwice) {
    OutgoingMessage message("QVTP/1.0 200 OK", DirectionLabel::REPLY);
    message.setBody(BODY);
    CutSink sink(std::string::npos);
    const LogCapture log(LogCapture::LoggingLevel::DEBUG, LogCapture::CommunicationLevel::OUTPUT);
    EXPECT_TRUE(message->answerWhole(&sink, LARGE_BUFFER));
    const std::string head = "QVTP/1.0 200 OK\r\nContent-Length: 13\r\n\r\n";
    const std::string records = log.communication();
    EXPECT_EQ(records.substr(records.find('\n') + 1), head + head + BODY + "\n");
    const std::string all = std::to_string(head.size() + BODY.size());
    EXPECT_THAT(log.messages(), Contains(StartsWith("INFO Wrote " + all + " bytes")));
}

/// Whether a response is committed that went over a pipe's stream and took nothing.
bool isCommittedOverABrokenStream(int bufferSize) {
    OutgoingMessage message;
    message.setBody(BODY);
    FailingStreamBuf buffer(1);
    std::ostream pipe(&buffer);
    pipe.exceptions(std::ios_base::badbit);
    QvtpOStream out(bufferSize, false, &pipe, nullptr);
    EXPECT_THROW(
        {
            message->writeHeaders(&out);
            message->writeBody(&out);
            out.send();
        },
        InjectedFailure);
    return message.isCommitted();
}

TEST(WholeResponse, TakesTheShortWayOnlyWhereTheBufferWouldHoldItsHeadBack) {
    const int longest = static_cast<int>(WHOLE.size()) + 3;
    for (int bufferSize = -1; bufferSize <= longest; ++bufferSize) {
        OutgoingMessage message;
        message.setBody(BODY);
        CutSink sink(std::string::npos);
        const bool isHeldBack = isCommittedOverABrokenStream(bufferSize);
        EXPECT_EQ(isHeldBack, bufferSize > static_cast<int>(HEAD_LENGTH)) << bufferSize;
        EXPECT_EQ(message->answerWhole(&sink, bufferSize), isHeldBack) << bufferSize;
        EXPECT_EQ(message.isCommitted(), isHeldBack) << bufferSize;
        EXPECT_EQ(sink.taken(), isHeldBack ? WHOLE : "") << bufferSize;
    }
}

/// Writes the same message in each way, with its line about the head, and expects the same bytes.
void expectInEveryWay(const std::string& startLine, const std::string& value, const std::string& body) {
    OutgoingMessage messages[] = {OutgoingMessage(startLine), OutgoingMessage(startLine), OutgoingMessage(startLine)};
    for (OutgoingMessage& message : messages) {
        message.addHeader("A", value);
        message.setBody(body);
        message.addHeader("Z", "last");
    }
    const LogCapture log;
    CutSink asRequest(std::string::npos), asResponse(std::string::npos);
    std::ostringstream stream;
    EXPECT_TRUE(messages[0]->sendWhole(&asRequest));
    EXPECT_TRUE(messages[1]->answerWhole(&asResponse, LARGE_BUFFER));
    messages[2]->writeHeaders(&stream);
    const std::string head =
        startLine + "\r\nA: " + value + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nZ: last\r\n\r\n";
    EXPECT_EQ(asRequest.taken(), head + body);
    EXPECT_EQ(asResponse.taken(), head + body);
    EXPECT_EQ(stream.str(), head);
    EXPECT_EQ(log.count("DEBUG Send:    " + startLine), 3);
}

TEST(WholeMessage, HasAHeadOfAnyLength) {
    for (const std::size_t bodyLength : {std::size_t{13}, std::size_t{100}}) {
        const std::string body(bodyLength, 'b');
        for (std::size_t length = 150; length <= 600; ++length) {
            expectInEveryWay("POST /r QVTP/1.0", std::string(length, 'v'), body);
            expectInEveryWay("POST /" + std::string(length, 'r') + " QVTP/1.0", "v", body);
        }
        expectInEveryWay("POST /r QVTP/1.0", std::string(3000, 'v'), body);
    }
}

TEST(WholeMessage, LeavesEverythingToTheStreamWithoutABodyOrAShortWay) {
    OutgoingMessage withoutBody;
    CutSink sink(std::string::npos);
    OutgoingMessage withBody;
    withBody.setBody(BODY);
    const LogCapture log;
    EXPECT_FALSE(withoutBody->sendWhole(&sink));
    EXPECT_FALSE(withoutBody->answerWhole(&sink, LARGE_BUFFER));
    EXPECT_FALSE(withBody->sendWhole(nullptr));
    EXPECT_FALSE(withBody->answerWhole(nullptr, LARGE_BUFFER));
    EXPECT_EQ(sink.taken(), "");
    EXPECT_FALSE(withoutBody.isCommitted());
    EXPECT_FALSE(withBody.isCommitted());
    EXPECT_THAT(log.messages(), ::testing::IsEmpty());
}

}  // namespace
