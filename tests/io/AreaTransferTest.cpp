#include <qvtp/io/PipeBufferBase.h>

#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include "io/PipeControl.h"
#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace qvtp_test {
namespace {

using namespace Quovane::Io;
using Quovane::Internal::Qvtp::PipeControl;
using Buffer = PipeBufferBase<char>;

// Blocks of every size through areas of several sizes: the same as byte by byte.

/// The sizes from 0 to `end`; of a large area's only those around its multiples.
std::vector<int> sizesTo(int end, int area) {
    std::vector<int> sizes;
    for (int size = 0; size <= end; ++size) {
        const int distance = std::min(size % area, area - size % area);
        if (area < 100 || distance <= 2) sizes.push_back(size);
    }
    return sizes;
}

std::string pattern(int size) {
    std::string bytes(static_cast<std::size_t>(size), '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>('a' + i * 31 % 253);
    return bytes;
}

class AreaTransfer : public ::testing::TestWithParam<int> {
  protected:
    AreaTransfer() {
        client.connect(name, true, true);
        server.accept(accepted);
        client.setReadTimeout(20000);
    }

    /// What has arrived at the peer.
    std::size_t arrived() const { return PipeControl::available(accepted); }
    std::string receive(std::size_t count) { return RawServer::read(accepted, count); }
    void send(const std::string& bytes) {
        if (!bytes.empty()) RawServer::write(accepted, bytes);
    }

    const int size = GetParam();
    const std::string name = uniquePipeName();
    ServerQvPipe server{name, true, true};
    QvPipe client;
    QvPipe accepted;
    std::vector<char> area = std::vector<char>(static_cast<std::size_t>(size));
};

TEST_P(AreaTransfer, HoldsBackAsMuchOfABlockAsOfSingleBytes) {
    Buffer out(&client, Buffer::OUTPUT_MODE);
    out.pubsetbuf(area.data(), size);
    for (const int pending : std::set<int>{0, 1, size / 2, size - 1, size}) {
        for (const int block : sizesTo(3 * size, size)) {
            const std::string all = pattern(pending + block);
            for (const char c : all) out.sputc(c);
            const std::size_t arrivedByByte = arrived();
            out.pubsync();
            ASSERT_EQ(receive(all.size()), all);

            for (int i = 0; i < pending; ++i) out.sputc(all[static_cast<std::size_t>(i)]);
            // In memory of its own: what comes before it is not what is pending.
            const std::string apart = all.substr(static_cast<std::size_t>(pending));
            EXPECT_EQ(out.sputn(apart.data(), block), block);
            EXPECT_EQ(arrived(), arrivedByByte) << pending << " pending, block of " << block;
            out.pubsync();
            ASSERT_EQ(receive(all.size()), all) << pending << " pending, block of " << block;
        }
    }
}

TEST_P(AreaTransfer, GivesTheSameBytesInBlocksAfterSingleBytes) {
    Buffer in(&client, Buffer::INPUT_MODE);
    in.pubsetbuf(area.data(), size);
    for (const int before : std::set<int>{0, 1, size - 1, size}) {
        for (const int block : sizesTo(3 * size, size)) {
            const std::string all = pattern(before + block + 1);
            send(all);
            std::string got;
            for (int i = 0; i < before; ++i) got += static_cast<char>(in.sbumpc());
            std::string data(static_cast<std::size_t>(block), '?');
            EXPECT_EQ(in.sgetn(&data[0], block), block);
            got += data;
            got += static_cast<char>(in.sbumpc());
            ASSERT_EQ(got, all) << before << " before, block of " << block;
            ASSERT_EQ(in.in_avail() + static_cast<std::streamsize>(PipeControl::available(client)), 0);
        }
    }
}

TEST_P(AreaTransfer, LeavesWhatFollowsABlockToTheNextReader) {
    Buffer in(&client, Buffer::INPUT_MODE);
    in.pubsetbuf(area.data(), size);
    const std::string all = pattern(5 * size);
    for (const int block : sizesTo(3 * size, size)) {
        send(all);
        std::string data(static_cast<std::size_t>(block), '?');
        EXPECT_EQ(in.sgetn(&data[0], block), block);
        EXPECT_LE(in.in_avail(), size) << block;
        std::string rest(static_cast<std::size_t>(in.in_avail()), '?');
        const auto held = static_cast<std::streamsize>(rest.size());
        EXPECT_EQ(in.sgetn(&rest[0], held), held);
        const std::size_t left = all.size() - data.size() - rest.size();
        std::string direct(left, '?');
        std::size_t filled = 0;
        while (filled < left) {
            filled += static_cast<std::size_t>(
                client.readPipe(&direct[0], static_cast<int>(filled), static_cast<int>(left - filled), 20000));
        }
        ASSERT_EQ(data + rest + direct, all) << block;
    }
}

TEST_P(AreaTransfer, JoinsWhatComesInTwoParts) {
    Buffer in(&client, Buffer::INPUT_MODE);
    in.pubsetbuf(area.data(), size);
    const int block = 2 * size + 1;
    const std::string all = pattern(block);
    for (const int cut : sizesTo(block, size)) {
        std::string data(all.size(), '?');
        auto reading = std::async(std::launch::async, [&] { return in.sgetn(&data[0], block); });
        send(all.substr(0, static_cast<std::size_t>(cut)));
        EXPECT_TRUE(eventually([&] { return PipeControl::available(client) == 0; }));  // the reader has the first part
        send(all.substr(static_cast<std::size_t>(cut)));
        EXPECT_EQ(reading.get(), block);
        ASSERT_EQ(data, all) << "cut at " << cut;
    }
}

TEST_P(AreaTransfer, HasFilledInWhatCameBeforeAFailure) {
    const int block = 3 * size;
    const std::string all = pattern(block);
    for (const int cut : sizesTo(block - 1, size)) {
        const std::string ownName = uniquePipeName();
        RawServer peer(ownName);
        QvPipe pipe(ownName, true, true);
        auto end = peer.accept();
        if (cut > 0) RawServer::write(*end, all.substr(0, static_cast<std::size_t>(cut)));
        end.reset();
        Buffer in(&pipe, Buffer::INPUT_MODE);
        std::vector<char> ownArea(static_cast<std::size_t>(size));
        in.pubsetbuf(ownArea.data(), size);
        std::string data(all.size(), '?');
        EXPECT_EQ(thrownBy([&] { in.sgetn(&data[0], block); }), "QvPipeException: QvPipe read failed.") << cut;
        EXPECT_EQ(data.substr(0, static_cast<std::size_t>(cut)), all.substr(0, static_cast<std::size_t>(cut)));
        EXPECT_EQ(in.in_avail(), 0) << cut;
    }
}

INSTANTIATE_TEST_SUITE_P(Of, AreaTransfer, ::testing::Values(1, 2, 7, 4096),
                         [](const auto& test) { return std::to_string(test.param); });

}  // namespace
}  // namespace qvtp_test
