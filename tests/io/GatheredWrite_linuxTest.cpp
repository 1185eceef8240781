#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include "common/MessageSink.h"
#include "io/PipeControl.h"
#include "support/FailingCall_linux.h"
#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace qvtp_test {
namespace {

using namespace Quovane::Io;
using Quovane::Internal::Qvtp::MessageSink;
using Quovane::Internal::Qvtp::PipeControl;

struct Cause {
    const char* name;
    int error;
    const char* thrown;
};

const Cause CAUSES[] = {
    {"AClosedPeer", EPIPE, "BrokenPipeException: Pipe was closed at other end."},
    {"AReset", ECONNRESET, "BrokenPipeException: Pipe was closed at other end."},
    {"ARefusal", ENOBUFS, "QvPipeException: Pipe write failed"},
};

void PrintTo(const Cause& cause, std::ostream* out) {
    *out << cause.name;
}

/// The stream of a pipe with a small area, whose sends are cut after some bytes.
class GatheredWrite : public ::testing::TestWithParam<Cause> {
  protected:
    static constexpr std::size_t AREA = 8;

    /// Writes at every cut of the `size` bytes that leave, and looks at the stream afterwards.
    void expectAtEveryCut(std::size_t size, const std::function<void(std::ostream&, QvPipe&)>& write) {
        for (std::size_t cut = 0; cut <= size; ++cut) {
            const std::string name = uniquePipeName();
            RawServer server(name);
            auto pipe = std::make_unique<QvPipe>(name, true, true);
            const auto peer = server.accept();
            char area[AREA];
            std::ostream& out = *pipe->getOutputStream();
            out.rdbuf()->pubsetbuf(area, sizeof area);
            const bool isCut = cut < size;
            {
                const SendCut sendCut(cut, GetParam().error);
                EXPECT_EQ(thrownBy([&] { write(out, *pipe); }), isCut ? GetParam().thrown : "nothing") << cut;
                EXPECT_EQ(sendCut.hasHappened(), isCut);
            }
            EXPECT_EQ(out.rdstate(), isCut ? std::ios_base::badbit : std::ios_base::goodbit) << cut;
            EXPECT_EQ(PipeControl::sinkOf(*pipe) == nullptr, isCut) << cut;
            EXPECT_EQ(RawServer::read(*peer, cut), all.substr(0, cut));
            EXPECT_EQ(PipeControl::available(*peer), 0U) << cut;
        }
    }

    const std::string all = "0123456789abcdefghijklmnopqrstuvwxyz";
};

TEST_P(GatheredWrite, OfABlockAndWhatIsPendingFailsAtEveryByte) {
    // 5 pending, and what is left of the block after them just fits into the area.
    const std::size_t leaving = (all.size() - 1) / AREA * AREA;
    expectAtEveryCut(leaving, [&](std::ostream& out, QvPipe&) {
        out.write(all.data(), 5);
        out.write(all.data() + 5, static_cast<std::streamsize>(all.size() - 5));
    });
}

TEST_P(GatheredWrite, OfHeadAndBodyFailsAtEveryByte) {
    expectAtEveryCut(all.size(), [&](std::ostream&, QvPipe& pipe) {
        MessageSink* const sink = PipeControl::sinkOf(pipe);
        const std::size_t head = 20;
        const std::size_t sent = sink->writeSome(all.data(), head, all.data() + head, all.size() - head);
        ASSERT_GT(sent, 0U);
        if (sent < all.size()) sink->writeAll(all.data() + sent, all.size() - sent);
    });
}

TEST_P(GatheredWrite, OfHeadAndBodyComesAfterWhatIsPending) {
    expectAtEveryCut(all.size(), [&](std::ostream& out, QvPipe& pipe) {
        out.write(all.data(), 3);
        MessageSink* const sink = PipeControl::sinkOf(pipe);
        const std::size_t sent = sink->writeSome(all.data() + 3, 10, all.data() + 13, all.size() - 13);
        sink->writeAll(all.data() + 3 + sent, all.size() - 3 - sent);
    });
}

INSTANTIATE_TEST_SUITE_P(By, GatheredWrite, ::testing::ValuesIn(CAUSES),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace qvtp_test
