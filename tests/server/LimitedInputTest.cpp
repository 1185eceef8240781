#include "server/LimitedInput.h"

#include <qvtp/io/QvPipeException.h>
#include <qvtp/io/TimeoutException.h>

#include "message/InputBuffer.h"
#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qvtp_test {
namespace {

using namespace std::chrono_literals;
using Quovane::Internal::Qvtp::LimitedInput;
using Quovane::Io::QvPipe;
using Quovane::Io::TimeoutException;
using Traits = std::streambuf::traits_type;

/// Gives one byte with each refill, and notes which read time-out its pipe has then.
class DrippingSource : public std::streambuf {
  public:
    DrippingSource(std::string text, QvPipe& pipe) : text_(std::move(text)), pipe_(pipe) {}

    std::vector<int> timeouts;
    std::chrono::milliseconds delay{0};
    bool timesOut = false;

  protected:
    int_type underflow() override {
        timeouts.push_back(pipe_.getReadTimeout());
        std::this_thread::sleep_for(delay);
        if (timesOut) throw TimeoutException("QvPipe read timeout.");
        if (next_ == text_.size()) return Traits::eof();
        byte_ = text_[next_++];
        setg(&byte_, &byte_, &byte_ + 1);
        return Traits::to_int_type(byte_);
    }

  private:
    const std::string text_;
    QvPipe& pipe_;
    std::size_t next_ = 0;
    char byte_ = 0;
};

/// What one request is read from, over bytes in memory.
class Limited : public ::testing::Test {
  protected:
    using Limits = LimitedInput::Limits;

    LimitedInput& over(const std::string& text, const Limits& limits) {
        source.emplace(text, pipe);
        sourceStream = std::make_unique<std::istream>(&*source);
        input = std::make_unique<LimitedInput>(*sourceStream, pipe, limits);
        return *input;
    }
    /// Reads byte by byte until that fails, or to the end.
    std::string readAll() {
        thrown = thrownBy([&] {
            for (int c = input->rdbuf()->sbumpc(); c != Traits::eof(); c = input->rdbuf()->sbumpc()) {
                read += Traits::to_char_type(c);
            }
        });
        return read;
    }
    static Limits timed(int headMs, int requestMs) {
        Limits limits;
        limits.headMs = headMs;
        limits.requestMs = requestMs;
        return limits;
    }

    QvPipe pipe;
    std::optional<DrippingSource> source;
    std::unique_ptr<std::istream> sourceStream;
    std::unique_ptr<LimitedInput> input;
    std::string read;
    std::string thrown;
};

TEST_F(Limited, GivesEveryByteAndThenTheEnd) {
    Limits limits;
    limits.headBytes = 100;
    over("POST / QVTP/1.0\r\n", limits);
    EXPECT_EQ(input->peek(), 'P');
    EXPECT_EQ(readAll(), "POST / QVTP/1.0\r\n");
    EXPECT_EQ(thrown, "nothing");
    EXPECT_EQ(input->peek(), Traits::eof());
    EXPECT_EQ(input->status(), 0);
}

TEST_F(Limited, CountsTheHeadAlsoInABlock) {
    Limits limits;
    limits.headBytes = 4;
    over("POST /", limits);
    char block[6] = {};
    EXPECT_EQ(thrownBy([&] { input->read(block, sizeof block); }), "QvPipeException: The head is longer than 4 bytes.");
    EXPECT_EQ(input->status(), 414);
}

TEST_F(Limited, SaysWhichLimitCameFirst) {
    Limits limits;
    limits.headBytes = 4;
    limits.bodyBytes = 1;
    over("POST /", limits);
    readAll();
    input->refuseBody();
    EXPECT_EQ(input->status(), 414);
    EXPECT_EQ(input->reason(), "The head is longer than 4 bytes.");
}

TEST_F(Limited, GivesEachReadWhatIsLeftOfTheShorterTime) {
    for (const auto& [headMs, requestMs] : {std::pair(60000, 0), std::pair(0, 60000), std::pair(60000, 90000),
                                            std::pair(90000, 60000), std::pair(60000, 60000)}) {
        over("ab", timed(headMs, requestMs));
        read.clear();
        EXPECT_EQ(readAll(), "ab");
        ASSERT_EQ(source->timeouts.size(), 3U);
        for (const int timeout : source->timeouts) {
            EXPECT_GT(timeout, 40000) << headMs << " " << requestMs;
            EXPECT_LE(timeout, 60000) << headMs << " " << requestMs;
        }
        EXPECT_EQ(pipe.getReadTimeout(), 0);
    }
}

TEST_F(Limited, KeepsAReadTimeoutThatIsShorter) {
    pipe.setReadTimeout(50);
    over("a", timed(60000, 0));
    EXPECT_EQ(readAll(), "a");
    EXPECT_EQ(source->timeouts, std::vector<int>({50, 50}));
    source->timesOut = true;
    readAll();
    EXPECT_EQ(thrown, "TimeoutException: QvPipe read timeout.");
    EXPECT_EQ(input->status(), 0) << "it is the server's own time-out";
}

TEST_F(Limited, SaysWhichTimeIsOver) {
    const std::string head = "QvPipeException: The head takes longer than ";
    const std::string request = "QvPipeException: The request takes longer than ";
    for (const auto& [limits, line] :
         {std::pair(timed(1, 0), head), std::pair(timed(0, 1), request), std::pair(timed(1, 60000), head),
          std::pair(timed(60000, 1), request), std::pair(timed(1, 1), head)}) {
        over("ab", limits);
        std::this_thread::sleep_for(3ms);
        readAll();
        EXPECT_EQ(thrown, line + "1 ms.");
        EXPECT_EQ(input->status(), 408);
    }
}

TEST_F(Limited, TakesATimeoutForTheEndOfItsTime) {
    over("ab", timed(1, 0));
    source->delay = 3ms;
    source->timesOut = true;
    readAll();
    EXPECT_EQ(thrown, "QvPipeException: The head takes longer than 1 ms.");
}

/// Begins to read when the time of the request is over already. Three bytes are on the pipe.
class LateInput : public Limited {
  protected:
    std::string readLate(const std::string& bytes) {
        const std::string name = uniquePipeName();
        RawServer server(name);
        pipe.connect(name, true, true);
        const auto accepted = server.accept();
        RawServer::write(*accepted, "abc");
        over(bytes, timed(0, 1));
        std::this_thread::sleep_for(3ms);
        return readAll();
    }
};

TEST_F(LateInput, IsWhatHadComeWhenTheTimeWasOver) {
    EXPECT_EQ(readLate("abcdef"), "abc") << "so much was on the pipe";
    EXPECT_EQ(thrown, "QvPipeException: The request takes longer than 1 ms.");
}

TEST_F(LateInput, EndsLikeAnyOther) {
    EXPECT_EQ(readLate("ab"), "ab");
    EXPECT_EQ(thrown, "nothing");
}

TEST_F(Limited, GivesABodyInBlocksAndThenTheEnd) {
    over("abc", timed(0, 60000));
    Quovane::Internal::Qvtp::InputBuffer body(3, &*input);
    EXPECT_TRUE(input->endHead(body));
    char block[] = "????";
    EXPECT_EQ(input->rdbuf()->sgetn(block, 4), 3);
    EXPECT_EQ(std::string(block), "abc?");
}

TEST_F(Limited, GivesALargeBodyFromItsSourceAndNotFromThePipe) {
    const std::string bytes(5000, 'x');
    over(bytes, timed(0, 60000));
    Quovane::Internal::Qvtp::InputBuffer body(5000, &*input);
    EXPECT_TRUE(input->endHead(body));
    std::string block(5000, '?');
    EXPECT_EQ(input->rdbuf()->sgetn(&block[0], 5000), 5000);
    EXPECT_EQ(block, bytes);
}

}  // namespace
}  // namespace qvtp_test
