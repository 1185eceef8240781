#include <qvtp/qvtp.h>

#include "support/PipeName.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace {

using namespace Quovane::Qvtp;
using namespace qvtp_test;

class EchoHandler : public QvtpHandler {
  public:
    void handleNotify(QvtpServerRequest*) override {}
    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        char* data = nullptr;
        size_t length = 0;
        request->getBody(&data, length);
        const std::unique_ptr<char[]> body(data);
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(data, length);
        response->send();
    }
};

TEST(RoundTrip, AnswersAPostWithTheBodyItWasSent) {
    const std::string name = uniquePipeName();
    EchoHandler handler;
    QvtpServer server(name, 1);
    server.setHandler(&handler);
    std::thread thread([&] { server.run(); });
    ASSERT_TRUE(eventually([&] { return server.isRunning(); }));
    {
        QvtpClient client;
        PostRequest request(&client, name, "/echo");
        request.setBody("hello", 5);
        const std::unique_ptr<QvtpResponse> response(request.execute());
        EXPECT_EQ(response->getStatusCode(), 200);
        char* data = nullptr;
        size_t length = 0;
        response->getBody(&data, length);
        const std::unique_ptr<char[]> body(data);
        EXPECT_EQ(std::string(data, length), "hello");
    }
    server.shutdown();
    thread.join();
}

}  // namespace
