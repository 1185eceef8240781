#include "platform/LocalSocket_linux.h"
#include "platform/PipeContract.h"
#include "platform/PipeObject_linux.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace qvtp_test {
namespace {

/// A write that waits for its reader, with a shorter time-out and a reader that is quicker in proportion.
class SlowReader : public PipeContract {
  protected:
    static constexpr auto TIMEOUT = 300ms;

    void SetUp() override { open(); }
    void TearDown() override { close(); }

    void open() {
        pair(server, client);
        platform::pipeTable().enter(client.pipe)->writeTimeoutMs = static_cast<int>(TIMEOUT.count());
        done = false;
    }
    void close() {
        platform::platformClose(client.pipe, client.event);
        if (writer.joinable()) writer.join();
        client.forget();  // not before: the writer still looks at it
    }

    /// Writes blocks on a thread of its own until one fails or `blocks` are written.
    void writeBlocks(std::size_t size, int blocks) {
        writer = std::thread([this, size, blocks] {
            const std::string block(size, 'x');
            int last = 0;
            for (int i = 0; i < blocks && last == 0; ++i) last = write(client, block);
            result = last;
            done = true;
        });
    }
    void waitForFullBuffers() {
        const int fd = platform::pipeTable().enter(client.pipe)->socket.get();
        ASSERT_TRUE(eventually([&] { return platform::LocalSocket::unreadMemory(fd) > 400000; }));
    }
    /// Takes so many bytes every so often for several time-outs; false if the write ends meanwhile.
    bool survives(int bytes, std::chrono::milliseconds pause) {
        const auto end = std::chrono::steady_clock::now() + 4 * TIMEOUT;
        longestPause = 0ms;
        while (lastRead < end) {
            std::this_thread::sleep_for(pause);
            const auto now = std::chrono::steady_clock::now();
            longestPause = std::max<std::chrono::nanoseconds>(longestPause, now - lastRead);
            lastRead = now;
            if (done) return false;
            std::string data;
            EXPECT_EQ(read(server, data, bytes), bytes);
        }
        return true;
    }
    /// The same for what `begin` writes. A busy machine may keep the reader itself from being steady: then once more.
    void expectSurvival(const std::function<void()>& begin, int bytes, std::chrono::milliseconds pause) {
        for (int attempt = 0; attempt < 10; ++attempt) {
            lastRead = std::chrono::steady_clock::now();
            begin();
            waitForFullBuffers();
            if (survives(bytes, pause)) return;
            ASSERT_GT(longestPause, TIMEOUT * 9 / 10);
            close();
            server = End();
            open();
        }
        FAIL() << "This machine has no time for a steady reader.";
    }

    void takeBlock(int size) const {
        std::vector<char> buffer(65536);
        while (size > 0) {
            const int count = platform::platformRead(server.pipe, server.event, buffer.data(), 65536, 5000);
            ASSERT_GT(count, 0);
            size -= count;
        }
    }

    End server;
    End client;
    std::thread writer;
    std::atomic<bool> done{false};
    std::atomic<int> result{0};
    std::chrono::steady_clock::time_point lastRead;  // just before it
    std::chrono::nanoseconds longestPause{0};
};

struct Blocks {
    std::size_t size;
    int count;
};

std::string nameOf(const ::testing::TestParamInfo<Blocks>& parameter) {
    return "Of" + std::to_string(parameter.param.size);
}

class SteadyReader : public SlowReader, public ::testing::WithParamInterface<Blocks> {};

// 4096 bytes in 6 of 10 seconds.
TEST_P(SteadyReader, IsNeverCutOff) {
    expectSurvival([&] { writeBlocks(GetParam().size, GetParam().count); }, 4096, TIMEOUT * 6 / 10);
}

// 20 kB a second.
TEST_P(SteadyReader, IsNeverCutOffAtAHigherPace) {
    expectSurvival([&] { writeBlocks(GetParam().size, GetParam().count); }, 8192, TIMEOUT / 25);
}

INSTANTIATE_TEST_SUITE_P(OfBlocks, SteadyReader,
                         ::testing::Values(Blocks{4096, 1024}, Blocks{4095, 1024}, Blocks{10000, 400},
                                           Blocks{65536, 64}, Blocks{3 << 20, 1}),
                         nameOf);

TEST_F(SlowReader, IsNeverCutOffBehindManySmallMessages) {
    const auto begin = [&] {
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(write(client, std::string(300, 'x')), 0);
            ASSERT_EQ(write(client, std::string(4096, 'x')), 0);
        }
        writeBlocks(1 << 20, 1);
    };
    expectSurvival(begin, 4096, TIMEOUT * 6 / 10);
}

TEST_F(SlowReader, IsCutOffOnceItTakesNothing) {
    expectSurvival([&] { writeBlocks(1 << 20, 1); }, 4096, TIMEOUT * 6 / 10);
    EXPECT_TRUE(eventually([&] { return done.load(); }));
    const auto patience = std::chrono::steady_clock::now() - lastRead;
    EXPECT_GE(patience, TIMEOUT);
    EXPECT_LT(patience, 5s);  // the usual time-out is ten
    EXPECT_EQ(result, WriteResult::TIMED_OUT);
}

TEST_F(SlowReader, IsCutOffWhenItTakesLessThanAPieceInAWholeTimeout) {
    writeBlocks(1 << 20, 1);
    waitForFullBuffers();
    lastRead = std::chrono::steady_clock::now();
    EXPECT_FALSE(survives(300, TIMEOUT / 8));
    EXPECT_EQ(result, WriteResult::TIMED_OUT);
}

TEST_F(SlowReader, GetsLargeBuffersOnlyWhileItIsQuick) {
    const platform::ReaderPace& pace = platform::pipeTable().enter(client.pipe)->pace;
    EXPECT_EQ(pace.limit(), platform::ReaderPace::PIECE);
    // As quick as this machine is: it may be busy.
    for (int round = 0; round < 100 && pace.limit() == platform::ReaderPace::PIECE; ++round) {
        writeBlocks(4 << 20, 1);
        takeBlock(4 << 20);
        writer.join();
    }
    EXPECT_GT(pace.limit(), platform::ReaderPace::PIECE);
    writeBlocks(4 << 20, 1);
    writer.join();
    EXPECT_EQ(result, WriteResult::TIMED_OUT);
    EXPECT_EQ(pace.limit(), platform::ReaderPace::PIECE);
}

}  // namespace
}  // namespace qvtp_test
