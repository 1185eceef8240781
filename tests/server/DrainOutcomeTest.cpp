#include "server/Worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

namespace qvtp_test {
namespace {

/// Whether a drain says that something was cut off.
class DrainOutcome : public Worker {
  protected:
    ~DrainOutcome() override {
        release.set_value();
        server.stop();  // before what its handler uses
    }
    /// Drains in the background, and returns when the server accepts no more.
    std::future<bool> drain() {
        auto draining = std::async(std::launch::async, [this] { return server.server.drain(30000); });
        EXPECT_TRUE(eventually([&] { return !server.server.isRunning(); }));
        return draining;
    }

    std::atomic<int> begun{0};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
};

TEST_F(DrainOutcome, IsThatNothingWasCutOffWhenAHandlersExceptionEndsAWholeRequest) {
    std::promise<void> go;
    server.handler.onNotify = [&](QvtpServerRequest&) {
        ++begun;
        go.get_future().wait();
        throw 1;
    };
    server.start();
    RawClient client(server.name);
    client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = drain();
    go.set_value();
    EXPECT_TRUE(draining.get());
}

TEST_F(DrainOutcome, IsThatARequestWasCutOffWhoseClientLeftWithinItsBody) {
    std::atomic<bool> failed{false};
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse&) {
        ++begun;
        failed = thrownBy([&] { bodyOf(request); }) != "nothing";
    };
    server.start();
    RawClient client(server.name);
    client.write("POST /p QVTP/1.0\r\nContent-Length: 5\r\n\r\nhe");
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    std::this_thread::sleep_for(30ms);  // the handler's read waits: then it meets the end of the stream
    auto draining = drain();
    client.close();
    EXPECT_FALSE(draining.get());
    EXPECT_TRUE(failed);
}

TEST_F(DrainOutcome, ComesAtItsTimeAlsoIfThatIsAMillisecond) {
    server.handler.onNotify = [this](QvtpServerRequest&) {
        ++begun;
        released.wait();
    };
    server.start();
    RawClient client(server.name);
    client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
    ASSERT_TRUE(eventually([&] { return begun == 1; }));
    auto draining = std::async(std::launch::async, [this] { return server.server.drain(1); });
    EXPECT_EQ(draining.wait_for(10s), std::future_status::ready);
    server.server.shutdown();
    EXPECT_FALSE(draining.get());
}

}  // namespace
}  // namespace qvtp_test
