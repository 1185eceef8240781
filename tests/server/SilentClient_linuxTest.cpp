#include "platform/LocalSocket_linux.h"
#include "platform/PipeAddress_linux.h"
#include "server/Worker.h"
#include "support/LogHook_linux.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <future>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::Descriptor;
using Quovane::Internal::Qvtp::PipeAddress;
namespace LocalSocket = Quovane::Internal::Qvtp::LocalSocket;

const std::string NOTIFICATION = "NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n";

/// A client that writes at a certain line of the log, on the worker's own thread: without the library, which would log
/// itself.
class SilentClient : public Worker {
  protected:
    ~SilentClient() override { server.stop(); }  // before what its handler uses

    void start() {
        server.server.setOption(QvtpServer::IDLE_TIMEOUT, 60);
        server.handler.onNotify = [this](QvtpServerRequest&) { ++notified; };
        server.start();
        PipeAddress address;
        ASSERT_EQ(address.resolve(QvPipe::PIPE_NAME_PREFIX + server.name, PipeAddress::Directory::MUST_EXIST), 0);
        ASSERT_TRUE(LocalSocket::connect(client.get(), address.socketPath(address.socketFile())));
        isConnected = true;
    }
    /// 0, or the number of the error.
    int send() const {
        eventually([this] { return isConnected.load(); });  // the worker may be quicker
        const ssize_t sent = ::send(client.get(), NOTIFICATION.data(), NOTIFICATION.size(), MSG_NOSIGNAL);
        return sent == static_cast<ssize_t>(NOTIFICATION.size()) ? 0 : errno;
    }
    /// What comes of a write at the line that has this text.
    int sendAtLineWith(const std::string& text) {
        std::promise<int> outcome;
        std::atomic<bool> isSent{false};
        const LogHook hook(LogHook::LoggingLevel::DEBUG, [&](std::string_view line) {
            if (line.find(text) != std::string::npos && !isSent.exchange(true)) outcome.set_value(send());
        });
        start();
        auto sent = outcome.get_future();
        EXPECT_EQ(sent.wait_for(10s), std::future_status::ready);
        EXPECT_TRUE(eventually([&] { return isClosed(); }));
        return sent.get();
    }
    bool isClosed() const {
        char byte = 0;
        return ::recv(client.get(), &byte, 1, MSG_DONTWAIT) == 0;
    }

    const Descriptor client = LocalSocket::create();
    std::atomic<bool> isConnected{false};
    std::atomic<int> notified{0};
};

TEST_F(SilentClient, IsServedWithWhatItWritesAfterTheLastLookForIt) {
    EXPECT_EQ(sendAtLineWith("timed out waiting for a request."), 0);
    EXPECT_EQ(notified, 1);
}

TEST_F(SilentClient, FindsItsWritesBrokenWhenItIsNotServedAnyMore) {
    EXPECT_EQ(sendAtLineWith("Closing QvPipe (" + full()), EPIPE);
    EXPECT_EQ(notified, 0);
}

}  // namespace
}  // namespace qvtp_test
