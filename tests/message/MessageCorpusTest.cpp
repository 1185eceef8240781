#include "message/MessageCorpus.h"

#include "message/IncomingMessage.h"
#include "support/ChoppedStreamBuf.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <istream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

namespace {

using namespace Quovane::Internal::Qvtp;
using namespace qvtp_test;
using ::testing::StartsWith;

/// Everything that a reader learns from a message.
struct Outcome {
    std::string read;
    std::size_t left = 0;
    bool isComplete = false;
};

bool operator==(const Outcome& a, const Outcome& b) {
    return a.read == b.read && a.left == b.left && a.isComplete == b.isComplete;
}

void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << outcome.read << "\nleft: " << outcome.left << (outcome.isComplete ? ", complete" : ", incomplete");
}

enum class By { BLOCK, STREAM };

std::string describeHead(QvtpMessageInImpl& message) {
    std::string text = thrownBy([&] { message.getStartLine(); }) + "\n";
    text += message.getStartLine() + "\n";
    for (const std::string& name : message.getHeaderNames()) {
        text += name + ":";
        for (const std::string& value : message.getHeaders(name)) text += " [" + value + "]";
        text += "\n";
    }
    return text;
}

std::string describeBody(QvtpMessageInImpl& message, By by) {
    std::string body;
    const std::string thrown = thrownBy([&] {
        if (by == By::BLOCK) {
            body = example::bodyOf(message);
        } else {
            body.assign(std::istreambuf_iterator<char>(*message.getBodyStream()), {});
        }
    });
    return thrown + "\n" + body;
}

Outcome parse(const CorpusMessage& entry, const std::string& bytes, std::size_t split, By by) {
    ChoppedStreamBuf chopped(bytes, split);
    std::istream pipe(&chopped);
    Quovane::Soa::Common::Xml::Utf8String converter;
    QvtpMessageInImpl message(&pipe, 4, entry.isRequest ? DirectionLabel::ACCEPT : DirectionLabel::RECEIVE, &converter);
    Outcome outcome;
    outcome.read = describeHead(message);
    outcome.read += describeBody(message, by);
    outcome.left = chopped.left().size();
    outcome.isComplete = message.bodyReader() != nullptr && message.bodyReader()->isComplete();
    return outcome;
}

class MessageCorpus : public ::testing::TestWithParam<CorpusMessage> {
  protected:
    const CorpusMessage& entry() const { return GetParam(); }
    Outcome whole(By by) const { return parse(entry(), entry().bytes, 0, by); }
    /// The body that arrives of these bytes; empty if the head does not.
    static std::string bodyStreamed(const std::string& bytes) {
        IncomingMessage message(bytes);
        std::string body;
        thrownBy([&] { body.assign(std::istreambuf_iterator<char>(*message->getBodyStream()), {}); });
        return body;
    }
};

TEST_P(MessageCorpus, IsReadTheSameSplitAtEveryByte) {
    for (const By by : {By::BLOCK, By::STREAM}) {
        const Outcome expected = whole(by);
        for (std::size_t split = 1; split <= entry().bytes.size(); ++split) {
            ASSERT_EQ(parse(entry(), entry().bytes, split, by), expected) << entry().what << ", split at " << split;
        }
    }
}

TEST_P(MessageCorpus, IsLoggedTheSameSplitAtEveryByte) {
    const auto logged = [&](std::size_t split) {
        const LogCapture log(LogCapture::LoggingLevel::ERROR);
        parse(entry(), entry().bytes, split, By::STREAM);
        return log.messages();
    };
    const std::vector<std::string> expected = logged(0);
    for (std::size_t split = 1; split <= entry().bytes.size(); split += 7) ASSERT_EQ(logged(split), expected) << split;
}

TEST_P(MessageCorpus, GivesNoByteOfAFollowingMessageAway) {
    if (!entry().hasEnd) return;
    const std::string next = "POST /next QVTP/1.0\r\nContent-Length: 1\r\n\r\nN";
    const Outcome alone = whole(By::STREAM);
    ASSERT_EQ(alone.left, 0U) << entry().what;
    for (std::size_t split = 0; split <= entry().bytes.size() + 5; ++split) {
        const Outcome followed = parse(entry(), entry().bytes + next, split, By::STREAM);
        ASSERT_EQ(followed.read, alone.read) << entry().what << ", split at " << split;
        ASSERT_EQ(followed.left, next.size()) << entry().what << ", split at " << split;
    }
}

TEST_P(MessageCorpus, EndsWithAnErrorOrAShortBodyWhenItIsCutOffAnywhere) {
    if (!entry().hasEnd || !whole(By::STREAM).isComplete) return;
    const std::string body = bodyStreamed(entry().bytes);
    for (std::size_t length = 0; length < entry().bytes.size(); ++length) {
        const std::string cut = entry().bytes.substr(0, length);
        ASSERT_FALSE(parse(entry(), cut, 0, By::BLOCK).isComplete) << entry().what << ", cut after " << length;
        ASSERT_FALSE(parse(entry(), cut, 0, By::STREAM).isComplete) << entry().what << ", cut after " << length;
        ASSERT_THAT(body, StartsWith(bodyStreamed(cut))) << entry().what << ", cut after " << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Every, MessageCorpus, ::testing::ValuesIn(messageCorpus()), [](const auto& test) {
    return std::regex_replace(std::string(test.param.what), std::regex("[^A-Za-z0-9]"), "_");
});

/// The outcome of the first message of the corpus with this description.
std::string outcomeOf(const std::string& what, By by) {
    for (const CorpusMessage& entry : messageCorpus()) {
        if (entry.what == what) return parse(entry, entry.bytes, 0, by).read;
    }
    return "no such message";
}

TEST(MessageCorpusOutcome, IsWhatEachMessageSays) {
    EXPECT_EQ(outcomeOf("a chunked request", By::BLOCK),
              "nothing\nPOST /r QVTP/1.0\nTransfer-Encoding: [chunked]\nnothing\nhello0123456789");
    EXPECT_EQ(outcomeOf("continued and repeated headers", By::STREAM),
              "nothing\nPOST /r QVTP/1.0\nContent-Length: [1]\nX: [a] [b c] [d]\nnothing\nz");
    EXPECT_EQ(outcomeOf("headers without values and without a colon", By::STREAM),
              "nothing\nPOST /r QVTP/1.0\n: [nameless]\nContent-Length: [1]\nEmpty:\nNo colon:\nnothing\nz");
    EXPECT_EQ(outcomeOf("zero bytes everywhere", By::BLOCK),
              std::string("nothing\nPO\0ST /r\nContent-Length: [3]\nX: [\0a]\nnothing\n\0\0\0", 56));
}

TEST(MessageCorpusOutcome, IsAnErrorForEachMessageWithoutOne) {
    EXPECT_THAT(outcomeOf("no length at all", By::BLOCK),
                StartsWith("QvPipeException: The QVTP Message does not have"));
    EXPECT_THAT(outcomeOf("nothing", By::BLOCK), StartsWith("InterruptedException: Reached the stream end-of-file"));
    EXPECT_EQ(outcomeOf("a body that is cut off", By::STREAM),
              "nothing\nPOST /r QVTP/1.0\nContent-Length: [100]\nnothing\nshort");
    EXPECT_EQ(outcomeOf("a body that is cut off", By::BLOCK),
              "nothing\nPOST /r QVTP/1.0\nContent-Length: [100]\n"
              "QvPipeException: Reached the stream end-of-file before the expected length.\n");
}

}  // namespace
