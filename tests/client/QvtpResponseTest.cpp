#include <qvtp/client/QvtpResponse.h>

#include "examples/BodyOf.h"
#include "support/FailingStreamBuf.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;

class Response : public ::testing::Test {
  protected:
    QvtpResponse& read(const std::string& startLine, const std::string& rest = "Content-Length: 0\r\n\r\n") {
        in = std::make_unique<std::istringstream>(startLine + "\r\n" + rest);
        response = std::make_unique<QvtpResponse>(&client, in.get());
        return *response;
    }

    QvtpClient client;
    std::unique_ptr<std::istringstream> in;
    std::unique_ptr<QvtpResponse> response;
};

TEST_F(Response, TakesTheStatusLineApart) {
    QvtpResponse& r = read("QVTP/1.0 200 OK");
    EXPECT_EQ(r.getStatusCode(), 200);
    EXPECT_EQ(r.getReasonPhrase(), "OK");
    EXPECT_EQ(r.getQvtpVersion(), Version(1, 0));
    EXPECT_EQ(r.getStartLine(), "QVTP/1.0 200 OK");
}

TEST_F(Response, ReadsAnotherVersion) {
    EXPECT_EQ(read("QVTP/2.7 200 OK").getQvtpVersion(), Version(2, 7));
    EXPECT_EQ(read("QVTP/2.7").getQvtpVersion(), Version(2, 7));
}

TEST_F(Response, KeepsTheInnerBlanksOfAReason) {
    EXPECT_EQ(read("QVTP/1.0 414   Resource-ID  Too Long \t").getReasonPhrase(), "Resource-ID  Too Long");
}

TEST_F(Response, HasNoReasonWithoutASecondBlank) {
    EXPECT_EQ(read("QVTP/1.0 200").getReasonPhrase(), "");
    EXPECT_EQ(read("QVTP/1.0").getReasonPhrase(), "");
}

TEST_F(Response, ReadsTheCodeAsFarAsItIsANumber) {
    EXPECT_EQ(read("QVTP/1.0 200").getStatusCode(), 200);
    EXPECT_EQ(read("QVTP/1.0 abc OK").getStatusCode(), 0);
    EXPECT_EQ(read("QVTP/1.0 20x OK").getStatusCode(), 20);
    EXPECT_EQ(read("QVTP/1.0 -7 OK").getStatusCode(), -7);
    EXPECT_EQ(read("QVTP/1.0  200 OK").getStatusCode(), 0);
    EXPECT_EQ(read("404").getStatusCode(), 404);
    EXPECT_EQ(read("QVTP/1.0 99999999999 OK").getStatusCode(), 2147483647);
}

TEST_F(Response, IsAnInternalErrorOfTheCurrentVersionWhenItCannotBeRead) {
    std::istringstream empty;
    QvtpResponse forCode(&client, &empty), forVersion(&client, &empty), forReason(&client, &empty);
    EXPECT_EQ(forCode.getStatusCode(), 500);
    EXPECT_EQ(forVersion.getQvtpVersion(), Version::CURRENT_VERSION);
    EXPECT_EQ(thrownBy([&] { forReason.getReasonPhrase(); }),
              "InterruptedException: Reached the stream end-of-file before the expected new line.");
    EXPECT_EQ(forReason.getReasonPhrase(), "Internal Server Error");
    EXPECT_EQ(forCode.getStartLine(), "QVTP/1.0 500 Internal Server Error");
}

TEST_F(Response, LetsForeignExceptionsThrough) {
    struct Broken : std::streambuf {
        int_type underflow() override { throw InjectedFailure{1}; }
    } broken;
    std::istream stream(&broken);
    stream.exceptions(std::ios_base::badbit);
    QvtpResponse r(&client, &stream);
    EXPECT_THROW(r.getStatusCode(), InjectedFailure);
}

TEST_F(Response, PassesHeadersAndBodyOn) {
    QvtpResponse& r = read("QVTP/1.0 200 OK", "Content-Length: 5\r\nX-A: 1\r\nx-a: 2\r\n\r\nhello");
    EXPECT_EQ(r.getHeader("X-A"), "");
    EXPECT_EQ(r.getStatusCode(), 200);
    EXPECT_EQ(r.getHeader("x-A"), "1");
    EXPECT_THAT(r.getHeaders("X-A"), ::testing::ElementsAre("1", "2"));
    EXPECT_THAT(r.getHeaderNames(), ::testing::ElementsAre("Content-Length", "X-A"));
    EXPECT_EQ(example::bodyOf(r), "hello");
}

TEST_F(Response, StreamsItsBody) {
    QvtpResponse& r = read("QVTP/1.0 200 OK", "Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n");
    std::ostringstream body;
    body << r.getBodyStream()->rdbuf();
    EXPECT_EQ(body.str(), "abc");
}

TEST_F(Response, ReadsInPiecesOfTheBufferSizeOfTheClient) {
    client.setOption(QvtpClient::BUFFER_SIZE, 3);
    QvtpResponse& r = read("QVTP/1.0 200 OK", "Content-Length: 5\r\n\r\nhello");
    std::istream* const body = r.getBodyStream();
    body->get();
    EXPECT_EQ(body->rdbuf()->in_avail(), 2);
}

TEST_F(Response, WorksWithABufferSizeBelowOne) {
    client.setOption(QvtpClient::BUFFER_SIZE, -1);
    QvtpResponse& r = read("QVTP/1.0 200 OK", "Content-Length: 2\r\n\r\nhi");
    std::string body;
    *r.getBodyStream() >> body;
    EXPECT_EQ(body, "hi");
}

}  // namespace
}  // namespace qvtp_test
