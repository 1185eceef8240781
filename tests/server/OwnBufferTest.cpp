#include "common/Utf8String.h"
#include "server/Worker.h"
#include "support/FailingStreamBuf.h"
#include "support/WriteRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

const std::string HEAD = "QVTP/1.0 200 OK\r\nContent-Length: 10\r\nServer: QvtpServer\r\n\r\n";

/// A response on the stream of a pipe, under which the application has put a buffer of its own.
class OwnBufferOfAResponse : public ::testing::Test {
  protected:
    void answer(std::streambuf* buffer, int bufferSize) {
        server.server.setOption(QvtpServer::BUFFER_SIZE, bufferSize);
        out.rdbuf(buffer);
        response = std::make_unique<QvtpServerResponse>(&server.server, &out, &converter);
        response->setStatusCode(200);
        response->setBody("0123456789", 10);
        response->send();
    }

    const std::string name = uniquePipeName();
    RawServer peer{name};
    QvPipe pipe{name, true, true};
    std::ostream& out = *pipe.getOutputStream();
    TestServer server;
    Quovane::Soa::Common::Xml::Utf8String converter;
    std::unique_ptr<QvtpServerResponse> response;
};

TEST_F(OwnBufferOfAResponse, SeesHeadAndBodyInPiecesOfTheBufferSizeAndFlushes) {
    WriteRecorder recorder;
    answer(&recorder, 32);
    const std::string all = HEAD + "0123456789";
    EXPECT_THAT(recorder.events,
                ElementsAre(all.substr(0, 32), all.substr(32, 32), all.substr(64), "<flush>", "<flush>"));
}

TEST_F(OwnBufferOfAResponse, SeesOnePieceWhenAllFits) {
    WriteRecorder recorder;
    answer(&recorder, 4096);
    EXPECT_THAT(recorder.events, ElementsAre(HEAD + "0123456789", "<flush>", "<flush>"));
}

TEST_F(OwnBufferOfAResponse, FailsTheResponseWhereItFails) {
    for (int operation = 1; operation <= 3; ++operation) {
        FailingStreamBuf failing(operation);
        EXPECT_THROW(answer(&failing, 4096), InjectedFailure) << operation;
        EXPECT_TRUE(response->isCommitted()) << operation;
        EXPECT_TRUE(out.bad()) << operation;
        EXPECT_EQ(failing.operations(), operation);
    }
}

}  // namespace
}  // namespace qvtp_test
