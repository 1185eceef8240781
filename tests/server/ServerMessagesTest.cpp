#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>
#include <qvtp/server/QvtpServerResponse.h>

#include "common/Utf8String.h"
#include "examples/BodyOf.h"
#include "support/HasForm.h"
#include "support/LogCapture.h"
#include "support/PipeName.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>

namespace qvtp_test {
namespace {

using namespace Quovane::Qvtp;
using Quovane::Soa::Common::Xml::Utf8String;
using ::testing::ElementsAre;

const char NO_BODY[] =
    "Neither the setBody or getBodyStream methods were called. Body data must be provided by one of these method.";
const char TWO_BODIES[] =
    "Both the setBody and getBodyStream methods were called. Only one method of providing body data is permitted.";

/// Requests and responses on streams in memory.
class ServerMessages : public ::testing::Test {
  protected:
    QvtpServerRequest& read(const std::string& startLine, const std::string& rest = "Content-Length: 0\r\n\r\n") {
        in = std::make_unique<std::istringstream>(startLine + "\r\n" + rest);
        request = std::make_unique<QvtpServerRequest>(&server, in.get(), &converter);
        return *request;
    }
    std::string wire() const { return out.str(); }

    QvtpServer server{uniquePipeName(), 1};
    Utf8String converter;
    std::unique_ptr<std::istringstream> in;
    std::unique_ptr<QvtpServerRequest> request;
    std::ostringstream out;
    QvtpServerResponse response{&server, &out, &converter};
};

class ServerRequest : public ServerMessages {};

TEST_F(ServerRequest, TakesItsStartLineApart) {
    QvtpServerRequest& r = read("POST /a/b QVTP/1.0");
    EXPECT_EQ(r.getMethod(), "POST");
    EXPECT_EQ(r.getResource(), "/a/b");
    EXPECT_EQ(r.getQvtpVersion(), Version::CURRENT_VERSION);
}

TEST_F(ServerRequest, HasTheWholeLineForAMethodWithoutBlanks) {
    QvtpServerRequest& r = read("POST");
    EXPECT_EQ(r.getMethod(), "POST");
    EXPECT_EQ(r.getResource(), "");
    EXPECT_EQ(r.getQvtpVersion(), Version(1, 0));
}

TEST_F(ServerRequest, HasWhatFollowsTheOnlyBlankForAResource) {
    EXPECT_EQ(read("POST /a").getResource(), "/a");
    EXPECT_EQ(read("POST ").getResource(), "");
    EXPECT_EQ(read("POST  QVTP/1.0").getResource(), "");
}

TEST_F(ServerRequest, ParsesTheVersionAfterTheLastBlank) {
    EXPECT_EQ(read("POST /a b c QVTP/3.4").getQvtpVersion(), Version(3, 4));
    EXPECT_EQ(read("POST /a QVTP/2").getQvtpVersion(), Version(2, 0));
}

TEST_F(ServerRequest, DecodesItsResource) {
    EXPECT_EQ(read("POST /\xE4 QVTP/1.0").getResource(), "/\xC3\xA4");
}

TEST_F(ServerRequest, HasStandInsWhenItCannotBeRead) {
    std::istringstream empty;
    QvtpServerRequest forMethod(&server, &empty, &converter), forResource(&server, &empty, &converter),
        forVersion(&server, &empty, &converter);
    EXPECT_EQ(forMethod.getMethod(), "NONE");
    EXPECT_EQ(forResource.getResource(), "");
    EXPECT_EQ(forVersion.getQvtpVersion(), Version::CURRENT_VERSION);
    EXPECT_EQ(forMethod.getStartLine(), "NONE Empty/Resource QVTP/1.0");
}

TEST_F(ServerRequest, PassesHeadersAndBodyOn) {
    QvtpServerRequest& r = read("POST /a QVTP/1.0", "Content-Length: 3\r\nX: 1, 2\r\n\r\nabc");
    r.getStartLine();
    EXPECT_EQ(r.getHeader("x"), "1");
    EXPECT_THAT(r.getHeaders("X"), ElementsAre("1", "2"));
    EXPECT_THAT(r.getHeaderNames(), ElementsAre("Content-Length", "X"));
    EXPECT_EQ(example::bodyOf(r), "abc");
}

TEST_F(ServerRequest, IsLoggedAsAccepted) {
    LogCapture log;
    read("POST /a QVTP/1.0").getStartLine();
    EXPECT_THAT(log.messages(), ElementsAre("DEBUG Accept:  POST /a QVTP/1.0"));
}

TEST_F(ServerRequest, ReadsItsBodyInPiecesOfTheBufferSizeOfTheServer) {
    server.setOption(QvtpServer::BUFFER_SIZE, 2);
    QvtpServerRequest& r = read("POST /a QVTP/1.0", "Content-Length: 5\r\n\r\nhello");
    r.getBodyStream()->get();
    EXPECT_EQ(r.getBodyStream()->rdbuf()->in_avail(), 1);
}

class ServerResponse : public ServerMessages {};

TEST_F(ServerResponse, StartsAsAnInternalErrorWithTheServersName) {
    EXPECT_EQ(response.getStartLine(), "QVTP/1.0 500 Internal Server Error");
    response.setBody("", 0);
    response.send();
    EXPECT_EQ(wire(), "QVTP/1.0 500 Internal Server Error\r\nContent-Length: 0\r\nServer: QvtpServer\r\n\r\n");
}

TEST_F(ServerResponse, CarriesTheNameThatTheServerHasBeenGiven) {
    server.setOption(QvtpServer::SERVER_NAME, "Vault");
    std::ostringstream other;
    QvtpServerResponse named(&server, &other, &converter);
    named.sendError(404, "x");
    EXPECT_THAT(other.str(), ::testing::HasSubstr("\r\nServer: Vault\r\n"));
}

TEST_F(ServerResponse, LooksUpTheReasonOfACode) {
    response.setStatusCode(414);
    EXPECT_EQ(response.getStartLine(), "QVTP/1.0 414 Resource-ID Too Long ");
    response.setStatusCode(299);
    EXPECT_EQ(response.getStartLine(), "QVTP/1.0 299 None");
    response.setStatusCode(-1);
    EXPECT_EQ(response.getStartLine(), "QVTP/1.0 -1 None");
}

TEST_F(ServerResponse, TakesAReasonAsItIs) {
    response.setStatusCode(200, "Fine");
    EXPECT_EQ(response.getStartLine(), "QVTP/1.0 200 Fine");
    response.setReasonPhrase("Good");
    EXPECT_EQ(response.getStartLine(), "QVTP/1.0 200 Good");
}

TEST_F(ServerResponse, SendsHeadAndWholeBodyTogether) {
    response.setStatusCode(200);
    response.addHeader("X-B", "2");
    response.addHeader("X-A", "1");
    response.removeHeader("x-b");
    response.setHeader("X-C", "3");
    response.setBody("hello", 5);
    EXPECT_FALSE(response.isCommitted());
    response.send();
    EXPECT_TRUE(response.isCommitted());
    EXPECT_EQ(wire(), "QVTP/1.0 200 OK\r\nContent-Length: 5\r\nServer: QvtpServer\r\nX-A: 1\r\nX-C: 3\r\n\r\nhello");
}

/// Counts the blocks that are written to it.
class BlockCounter : public std::stringbuf {
  public:
    int blocks = 0;

  protected:
    std::streamsize xsputn(const char* data, std::streamsize length) override {
        ++blocks;
        return std::stringbuf::xsputn(data, length);
    }
};

TEST_F(ServerResponse, IsOneBlockWhenItFitsIntoTheBuffer) {
    BlockCounter counter;
    std::ostream stream(&counter);
    QvtpServerResponse small(&server, &stream, &converter);
    small.setBody("hello", 5);
    small.send();
    EXPECT_EQ(counter.blocks, 1);
}

TEST_F(ServerResponse, CountsHeadAndBodyInItsThroughput) {
    LogCapture log;
    response.setStatusCode(200);
    response.setBody("hello", 5);
    response.send();
    EXPECT_THAT(log.messages(),
                ElementsAre("DEBUG Reply:   QVTP/1.0 200 OK", HasForm("INFO Wrote " + std::to_string(wire().size()) +
                                                                      " bytes to the QvPipe \\(.* Mbps\\)\\.")));
}

TEST_F(ServerResponse, StreamsABodyInChunksAfterAHeadThatWaitsForIt) {
    server.setOption(QvtpServer::BUFFER_SIZE, 4);
    QvtpServerResponse chunked(&server, &out, &converter);
    std::ostream* const body = chunked.getBodyStream();
    EXPECT_EQ(chunked.getBodyStream(), body);
    chunked.setStatusCode(200);
    EXPECT_EQ(wire(), "");
    EXPECT_FALSE(chunked.isCommitted());
    *body << "a";
    EXPECT_TRUE(chunked.isCommitted());
    *body << "bcdef";
    chunked.send();
    EXPECT_EQ(wire(),
              "QVTP/1.0 200 OK\r\nServer: QvtpServer\r\nTransfer-Encoding: chunked\r\n\r\n"
              "4\r\nabcd\r\n2\r\nef\r\n0\r\n\r\n");
}

TEST_F(ServerResponse, StreamsAnEmptyBody) {
    response.getBodyStream();
    response.send();
    EXPECT_THAT(wire(), ::testing::EndsWith("Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"));
}

TEST_F(ServerResponse, SendsWhatIsThereWithAFlush) {
    *response.getBodyStream() << "now" << std::flush;
    EXPECT_THAT(wire(), ::testing::EndsWith("\r\n\r\n3\r\nnow\r\n"));
}

TEST_F(ServerResponse, RefusesWritesAfterItWasSent) {
    std::ostream* const body = response.getBodyStream();
    response.send();
    EXPECT_EQ(thrownBy([&] { *body << "late"; }),
              "QvPipeException: Atempt to write to the QvPipe  after the message has been sent.");
}

TEST_F(ServerResponse, NeedsABody) {
    LogCapture log;
    EXPECT_EQ(thrownBy([&] { response.send(); }), std::string("IllegalStateException: ") + NO_BODY);
    EXPECT_THAT(log.messages(), ElementsAre(std::string("ERROR ") + NO_BODY));
    EXPECT_EQ(wire(), "");
}

TEST_F(ServerResponse, TakesOneBodyOnly) {
    response.setBody("x", 1);
    response.getBodyStream();
    LogCapture log;
    EXPECT_EQ(thrownBy([&] { response.send(); }), std::string("IllegalStateException: ") + TWO_BODIES);
    EXPECT_THAT(log.messages(), ElementsAre(std::string("ERROR ") + TWO_BODIES));
}

TEST_F(ServerResponse, SendsAnErrorWithTheCallersReason) {
    response.sendError(404, "No such account");
    EXPECT_EQ(wire(), "QVTP/1.0 404 No such account\r\nContent-Length: 0\r\nServer: QvtpServer\r\n\r\n");
}

TEST_F(ServerResponse, SendsLineEndsInAReasonAsBlanks) {
    const std::string reason("a\r\nX-Admin: yes\r\n\r\nb\0c\td\xFF", 25);
    response.setReasonPhrase(reason);
    EXPECT_EQ(response.getStartLine(), "QVTP/1.0 500 a  X-Admin: yes    b c\td\xFF");
    response.sendError(400, reason);
    EXPECT_EQ(wire(), "QVTP/1.0 400 a  X-Admin: yes    b c\td\xFF\r\nContent-Length: 0\r\nServer: QvtpServer\r\n\r\n");
}

TEST_F(ServerResponse, ReplacesABodyByAnError) {
    response.setBody("too early", 9);
    response.sendError(500, "Failed");
    EXPECT_EQ(wire(), "QVTP/1.0 500 Failed\r\nContent-Length: 0\r\nServer: QvtpServer\r\n\r\n");
}

TEST_F(ServerResponse, CannotSendAnErrorInTheMiddleOfABodyStream) {
    *response.getBodyStream() << "begun";
    EXPECT_EQ(thrownBy([&] { response.sendError(500, "x"); }), std::string("IllegalStateException: ") + TWO_BODIES);
}

}  // namespace
}  // namespace qvtp_test
