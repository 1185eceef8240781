#include "client/Requests.h"
#include "support/FailingStreamBuf.h"
#include "support/WriteRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

/// A manager with one pipe, on whose output stream the application has put a buffer of its own.
class OwnBuffer : public Requests {
  protected:
    class Manager : public QvtpConnectionManager {
      public:
        explicit Manager(const std::string& pipeName) : pipe(pipeName, true, true) {}
        QvPipe* getPipe(const std::string&, const std::string&) override { return &pipe; }
        void returnPipe(QvPipe*) override {}
        void removePipe(QvPipe*) override {}

        QvPipe pipe;
    };

    OwnBuffer() : manager(name), ownClient(&manager) { ownClient.setOption(QvtpClient::BUFFER_SIZE, 4); }

    void put(std::streambuf* buffer) { manager.pipe.getOutputStream()->rdbuf(buffer); }
    void notifyWhole(const std::string& body) {
        NotifyRequest request(&ownClient, name, "/r");
        request.setBody(body.data(), body.size());
        request.execute();
    }

    Manager manager;
    QvtpClient ownClient;
};

const char PLAIN_HEAD[] = "NOTIFY /r QVTP/1.0\r\nContent-Length: 10\r\nUser-Agent: QvtpClient\r\n\r\n";
const char CHUNKED_HEAD[] = "NOTIFY /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\nUser-Agent: QvtpClient\r\n\r\n";

TEST_F(OwnBuffer, SeesHeadFlushPiecesOfTheBufferSizeAndFlushes) {
    WriteRecorder recorder;
    put(&recorder);
    notifyWhole("0123456789");
    EXPECT_THAT(recorder.events, ElementsAre(PLAIN_HEAD, "<flush>", "0123", "4567", "89", "<flush>", "<flush>"));
}

TEST_F(OwnBuffer, SeesChunksOfTheBufferSize) {
    WriteRecorder recorder;
    put(&recorder);
    std::istringstream body("012345");
    NotifyRequest request(&ownClient, name, "/r");
    request.setBodyStream(&body);
    request.execute();
    EXPECT_THAT(recorder.events, ElementsAre(CHUNKED_HEAD, "<flush>", "4\r\n", "0123", "\r\n", "2\r\n", "45", "\r\n",
                                             "<flush>", "0\r\n\r\n", "<flush>"));
}

TEST_F(OwnBuffer, SeesTheSameInFrontOfThePipesOwn) {
    class Passing : public WriteRecorder {
      public:
        std::streambuf* next = nullptr;

      private:
        std::streamsize xsputn(const char* data, std::streamsize length) override {
            WriteRecorder::xsputn(data, length);
            for (std::streamsize i = 0; i < length; ++i) next->sputc(data[i]);
            return length;
        }
        int sync() override { return WriteRecorder::sync() + next->pubsync(); }
    };
    pipe = server.accept();
    Passing passing;
    passing.next = manager.pipe.getOutputStream()->rdbuf(&passing);
    notifyWhole("0123456789");
    EXPECT_THAT(passing.events, ElementsAre(PLAIN_HEAD, "<flush>", "0123", "4567", "89", "<flush>", "<flush>"));
    EXPECT_EQ(RawServer::readUntil(*pipe, "89"), std::string(PLAIN_HEAD) + "0123456789");
}

TEST_F(OwnBuffer, FailsARequestWhereItFails) {
    // Head, flush, three pieces, two flushes: the request is committed with the first flush.
    for (int operation = 1; operation <= 7; ++operation) {
        FailingStreamBuf failing(operation);
        std::ostream& stream = *manager.pipe.getOutputStream();
        stream.rdbuf(&failing);  // the stream is good again
        NotifyRequest request(&ownClient, name, "/r");
        request.setBody("0123456789", 10);
        EXPECT_THROW(request.execute(), InjectedFailure) << operation;
        EXPECT_EQ(request.isCommitted(), operation > 2) << operation;
        EXPECT_TRUE(stream.bad()) << operation;
        EXPECT_EQ(failing.operations(), operation);
    }
}

TEST_F(OwnBuffer, LeavesTheShortWayToThePipesOwnWhenItIsGone) {
    WriteRecorder recorder;
    std::ostream& stream = *manager.pipe.getOutputStream();
    char area[4096];
    stream.rdbuf()->pubsetbuf(area, sizeof area);
    std::streambuf* const own = stream.rdbuf(&recorder);
    notifyWhole("first");
    EXPECT_EQ(recorder.events.size(), 6U);
    stream.rdbuf(own);
    notifyWhole("0123456789");
    EXPECT_EQ(recorder.events.size(), 6U);
    EXPECT_EQ(RawServer::readUntil(*server.accept(), "89"), std::string(PLAIN_HEAD) + "0123456789");
}

}  // namespace
}  // namespace qvtp_test
