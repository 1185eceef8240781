#include "common/Utf8String.h"
#include "examples/BodyOf.h"
#include "message/DirectionLabel.h"
#include "message/QvtpMessageInImpl.h"
#include "support/ChoppedStreamBuf.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <istream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Quovane::Internal::Qvtp;
using namespace qvtp_test;

// A body is read straight into its reader's memory where that asks for much. What is read, and what becomes of the
// stream, is the same as character by character, wherever the input is cut and wherever it fails.

constexpr std::size_t AREA = 4;
constexpr std::size_t NEVER = ChoppedStreamBuf::NEVER;
const std::string BODY = "abcdefghijklmnopqrs";
const std::string NEXT = "NEXT";

struct Framing {
    const char* name;
    std::string bytes;  // of the whole message
};

const Framing FRAMINGS[] = {
    {"Plain", "POST /r QVTP/1.0\r\nContent-Length: 19\r\n\r\n" + BODY},
    {"Chunked",
     "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n"
     "1\r\na\r\n4\r\nbcde\r\n9\r\nfghijklmn\r\n5\r\nopqrs\r\n0\r\n\r\n"},
};

void PrintTo(const Framing& framing, std::ostream* out) {
    *out << framing.name;
}

/// What a reader has got so far, and the block that a failing read was to fill.
struct Got {
    std::string bytes;
    std::string unfinished;
    bool isBlock = false;  // read by getBody(), which gives all or nothing
};

using Reader = std::function<void(QvtpMessageInImpl& message, Got& got)>;

constexpr char UNTOUCHED = '?';

/// One read() of a block; false at the end.
bool readBlock(std::istream& in, std::size_t size, Got& got) {
    got.unfinished.assign(size, UNTOUCHED);
    in.read(&got.unfinished[0], static_cast<std::streamsize>(size));
    got.bytes.append(got.unfinished, 0, static_cast<std::size_t>(in.gcount()));
    got.unfinished.clear();
    return in.good();
}

void readByCharacter(QvtpMessageInImpl& message, Got& got) {
    std::istream& in = *message.getBodyStream();
    for (int c = in.get(); in.good(); c = in.get()) got.bytes += static_cast<char>(c);
}

Reader inBlocks(const std::vector<std::size_t>& sizes) {
    return [sizes](QvtpMessageInImpl& message, Got& got) {
        std::istream& in = *message.getBodyStream();
        for (std::size_t i = 0; readBlock(in, sizes[i % sizes.size()], got); ++i) continue;
    };
}

void readWhole(QvtpMessageInImpl& message, Got& got) {
    got.isBlock = true;
    got.bytes += example::bodyOf(message);
}

/// Some bytes through the stream, in one block, and all the rest as a body.
Reader throughBoth(std::size_t size) {
    return [size](QvtpMessageInImpl& message, Got& got) {
        readBlock(*message.getBodyStream(), size, got);
        readWhole(message, got);
    };
}

/// The same with single characters.
Reader throughBothByCharacter(std::size_t size) {
    return [size](QvtpMessageInImpl& message, Got& got) {
        for (std::size_t i = 0; i < size; ++i) got.bytes += static_cast<char>(message.getBodyStream()->get());
        readWhole(message, got);
    };
}

/// A way to read, and the way character by character that it is to equal.
struct Way {
    Reader read;
    Reader reference;
    bool stopsAtTheLastByte = false;
};

std::vector<Way> ways() {
    std::vector<Way> all = {{readWhole, readByCharacter, true},
                            {inBlocks({1, 2 * AREA, 3, 1000}), readByCharacter},
                            {inBlocks({3, 2 * AREA + 1}), readByCharacter}};
    for (const std::size_t size : {std::size_t{1}, AREA - 1, AREA, AREA + 1, 3 * AREA, std::size_t{1000}}) {
        all.push_back({inBlocks({size}), readByCharacter});
        if (size < BODY.size()) all.push_back({throughBoth(size), throughBothByCharacter(size)});
    }
    return all;
}

struct Outcome {
    Got got;
    std::string thrown;
    std::ios_base::iostate state = {};
    std::string left;
    std::string after;  // what another getBody() gives
};

Outcome outcomeOf(const Reader& read, ChoppedStreamBuf& input) {
    std::istream pipe(&input);
    pipe.exceptions(std::ios_base::badbit);
    Quovane::Soa::Common::Xml::Utf8String converter;
    QvtpMessageInImpl message(&pipe, static_cast<int>(AREA), DirectionLabel::ACCEPT, &converter);
    Outcome outcome;
    outcome.thrown = thrownBy([&] { read(message, outcome.got); });
    outcome.state = message.getBodyStream()->rdstate();
    outcome.left = input.left();
    std::string body;
    outcome.after = thrownBy([&] { body = example::bodyOf(message); }) + " " + body;
    return outcome;
}

std::size_t startOfBody(const Framing& framing) {
    return framing.bytes.find("\r\n\r\n") + 4;
}

class DirectRead : public ::testing::TestWithParam<Framing> {
  protected:
    const std::string bytes = GetParam().bytes;
    const std::size_t start = startOfBody(GetParam());
    const bool isChunked = bytes.find("chunked") != NEVER;
    const std::vector<Way> all = ways();
};

TEST_P(DirectRead, GivesTheSameWhereverTheInputIsCut) {
    for (std::size_t cut = start; cut <= bytes.size() + 1; ++cut) {
        for (const std::size_t step : {std::size_t{1}, std::size_t{3}, NEVER}) {
            for (std::size_t i = 0; i < all.size(); ++i) {
                const std::string where = "cut at " + std::to_string(cut) + ", way " + std::to_string(i);
                ChoppedStreamBuf once(bytes + NEXT, cut, step, NEVER), again(bytes + NEXT, cut, step, NEVER);
                const Outcome expected = outcomeOf(all[i].reference, once);
                const Outcome outcome = outcomeOf(all[i].read, again);
                EXPECT_EQ(outcome.thrown, expected.thrown) << where;
                EXPECT_EQ(outcome.got.bytes, expected.got.bytes) << where;
                EXPECT_EQ(outcome.left, NEXT) << where;
                EXPECT_EQ(expected.left, NEXT) << where;
                // A body of known length ends with its last byte, without a look at what follows.
                const bool isGood = all[i].stopsAtTheLastByte && !isChunked;
                EXPECT_EQ(outcome.state, isGood ? std::ios_base::goodbit : expected.state) << where;
                EXPECT_EQ(outcome.after, expected.after) << where;
            }
        }
    }
}

TEST_P(DirectRead, GivesTheWholeBodyInEveryWay) {
    for (std::size_t i = 0; i < all.size(); ++i) {
        ChoppedStreamBuf input(bytes + NEXT, 0, NEVER, NEVER);
        const Outcome outcome = outcomeOf(all[i].read, input);
        // Of a body of known length only all of it can be asked for at once.
        const bool isCutOff = !isChunked && outcome.got.isBlock && !all[i].stopsAtTheLastByte;
        EXPECT_EQ(outcome.thrown,
                  isCutOff ? "QvPipeException: Reached the stream end-of-file before the expected length." : "nothing");
        if (!isCutOff) {
            EXPECT_EQ(outcome.got.bytes, BODY) << i;
        }
    }
}

/// The bytes of a block that a failing read has filled.
std::string filledPart(const std::string& block) {
    return block.substr(0, std::min(block.find(UNTOUCHED), block.size()));
}

TEST_P(DirectRead, FailsTheSameWhereverTheInputFails) {
    for (std::size_t failAt = start; failAt < bytes.size(); ++failAt) {
        for (const std::size_t step : {std::size_t{1}, std::size_t{3}, NEVER}) {
            for (std::size_t i = 0; i < all.size(); ++i) {
                const std::string where = "fails at " + std::to_string(failAt) + ", way " + std::to_string(i);
                ChoppedStreamBuf once(bytes, 0, step, failAt), again(bytes, 0, step, failAt);
                const Outcome expected = outcomeOf(all[i].reference, once);
                const Outcome outcome = outcomeOf(all[i].read, again);
                EXPECT_EQ(outcome.thrown, "std::exception: injected") << where;
                EXPECT_EQ(outcome.state, std::ios_base::badbit) << where;
                EXPECT_EQ(outcome.thrown, expected.thrown) << where;
                EXPECT_EQ(outcome.state, expected.state) << where;
                EXPECT_EQ(outcome.after, expected.after) << where;
                const std::string got = outcome.got.bytes + filledPart(outcome.got.unfinished);
                EXPECT_EQ(got, BODY.substr(0, got.size())) << where;
                if (!outcome.got.isBlock) {
                    EXPECT_GE(got.size(), expected.got.bytes.size()) << where;
                }
            }
        }
    }
}

TEST_P(DirectRead, LeavesTheSameRecordWhereverTheInputFails) {
    LogCapture log(LogCapture::LoggingLevel::OFF, LogCapture::CommunicationLevel::INPUT);
    const auto record = [&](const Reader& read, std::size_t failAt) {
        log.clear();
        ChoppedStreamBuf input(bytes, 0, NEVER, failAt);
        outcomeOf(read, input);
        const std::string records = log.communication();
        return records.substr(records.find('\n') + 1);
    };
    for (std::size_t failAt = start; failAt <= bytes.size(); ++failAt) {
        const std::string expected = record(readByCharacter, failAt);
        // Blocks of other sizes end elsewhere.
        for (const Reader& read : {Reader(readWhole), inBlocks({AREA}), inBlocks({3 * AREA}), inBlocks({1000})}) {
            EXPECT_EQ(record(read, failAt), expected) << "fails at " << failAt;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, DirectRead, ::testing::ValuesIn(FRAMINGS),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
