#include "client/Requests.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

const char NO_BODY[] =
    "Neither the setBody, or setBodyStream methods were called. Body data must be provided by one of these method.";
const char TWO_BODIES[] =
    "Both the setBody and setBodyStream methods were called. Only one method of providing body data is permitted.";
const char COMMITTED[] = "The start line and headers have already been committed to the request. Cannot send again.";

TEST_F(Requests, NameTheirMethodAndResource) {
    PostRequest post(&client, name, "/a");
    NotifyRequest notification(&client, name, "/b");
    EXPECT_EQ(post.getMethod(), "POST");
    EXPECT_EQ(notification.getMethod(), "NOTIFY");
    EXPECT_EQ(post.getResource(), "/a");
    post.setResource("/c");
    EXPECT_EQ(post.getResource(), "/c");
    EXPECT_EQ(post.getStartLine(), "POST /c QVTP/1.0");
    EXPECT_EQ(notification.getStartLine(), "NOTIFY /b QVTP/1.0");
}

TEST_F(Requests, EncodeTheResourceInTheStartLine) {
    PostRequest post(&client, name, "/a\r\nX: 1\xC4");
    EXPECT_EQ(post.getStartLine(), "POST /a  X: 1\xC3\x84 QVTP/1.0");
}

TEST_F(Requests, SendAWholeBodyByItsLength) {
    PostRequest post(&client, name, "/r");
    post.setBody("hello", 5);
    EXPECT_EQ(exchange(post, "hello"), "POST /r QVTP/1.0\r\nContent-Length: 5\r\nUser-Agent: QvtpClient\r\n\r\nhello");
    EXPECT_TRUE(post.isCommitted());
    EXPECT_EQ(response->getStatusCode(), 200);
    EXPECT_EQ(bodyOfResponse(), "hi");
}

TEST_F(Requests, LogTheStartLinesOfBothMessages) {
    PostRequest post(&client, name, "/r");
    post.setBody("hello", 5);
    LogCapture log;
    exchange(post, "hello");
    EXPECT_EQ(log.count("DEBUG Send:    POST /r QVTP/1.0"), 1);
    EXPECT_EQ(log.count("DEBUG Receive: QVTP/1.0 200 OK"), 1);
}

TEST_F(Requests, SendABodyStreamInChunksOfTheBufferSize) {
    client.setOption(QvtpClient::BUFFER_SIZE, 4);
    std::istringstream body("abcdefg");
    PostRequest post(&client, name, "/r");
    post.setBodyStream(&body);
    EXPECT_EQ(exchange(post, "0\r\n\r\n"),
              "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\nUser-Agent: QvtpClient\r\n\r\n"
              "4\r\nabcd\r\n3\r\nefg\r\n0\r\n\r\n");
}

TEST_F(Requests, SendAnEmptyBodyOfEitherKind) {
    PostRequest whole(&client, name, "/r");
    whole.setBody(nullptr, 0);
    EXPECT_EQ(exchange(whole, "\r\n\r\n"), "POST /r QVTP/1.0\r\nContent-Length: 0\r\nUser-Agent: QvtpClient\r\n\r\n");
    std::istringstream nothing;
    PostRequest streamed(&client, name, "/r");
    streamed.setBodyStream(&nothing);
    pipe.reset();
    EXPECT_EQ(exchange(streamed, "\r\n0\r\n\r\n"),
              "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\nUser-Agent: QvtpClient\r\n\r\n0\r\n\r\n");
}

TEST_F(Requests, WorkWithABufferSizeBelowOne) {
    client.setOption(QvtpClient::BUFFER_SIZE, 0);
    std::istringstream body("ab");
    PostRequest post(&client, name, "/r");
    post.setBodyStream(&body);
    EXPECT_THAT(exchange(post, "0\r\n\r\n"), ::testing::EndsWith("\r\n\r\n1\r\na\r\n1\r\nb\r\n0\r\n\r\n"));
}

TEST_F(Requests, CarryTheirHeadersAndOneUserAgent) {
    client.setOption(QvtpClient::USER_AGENT, "Teller");
    PostRequest post(&client, name, "/r");
    post.addHeader("X-Ids", "a, b");
    post.addHeader("x-ids", "c");
    post.addHeader("Gone", "1");
    post.removeHeader("GONE");
    post.setHeader("Accept", "x");
    post.setBody("", 0);
    EXPECT_EQ(exchange(post, "\r\n\r\n"),
              "POST /r QVTP/1.0\r\nAccept: x\r\nContent-Length: 0\r\nUser-Agent: Teller\r\nX-Ids: a,b,c\r\n\r\n");
}

TEST_F(Requests, CarryTheHeadersOfANotification) {
    NotifyRequest request(&client, name, "/r");
    request.addHeader("X-Ids", "a");
    request.addHeader("X-Ids", "b");
    request.addHeader("Gone", "1");
    request.removeHeader("Gone");
    request.setHeader("Accept", "x");
    request.setBody("", 0);
    EXPECT_EQ(notify(request, "\r\n\r\n"),
              "NOTIFY /r QVTP/1.0\r\nAccept: x\r\nContent-Length: 0\r\nUser-Agent: QvtpClient\r\nX-Ids: a,b\r\n\r\n");
}

TEST_F(Requests, KeepBothLengthsOfTwoWholeBodies) {
    NotifyRequest request(&client, name, "/r");
    request.setBody("hello", 5);
    request.setBody("abc", 3);
    EXPECT_EQ(notify(request, "abc"), "NOTIFY /r QVTP/1.0\r\nContent-Length: 5,3\r\nUser-Agent: QvtpClient\r\n\r\nabc");
}

TEST_F(Requests, AddTheEncodingForEveryBodyStream) {
    std::istringstream first("1"), second("2");
    NotifyRequest request(&client, name, "/r");
    request.setBodyStream(&first);
    request.setBodyStream(&second);
    EXPECT_THAT(notify(request, "0\r\n\r\n"),
                ::testing::HasSubstr("Transfer-Encoding: chunked,chunked\r\nUser-Agent: QvtpClient\r\n\r\n1\r\n2\r\n"));
}

TEST_F(Requests, NeedABodyBeforeAnyPipeIsTaken) {
    PostRequest post(&client, name, "/r");
    NotifyRequest notification(&client, name, "/r");
    LogCapture log;
    EXPECT_EQ(thrownBy([&] { post.execute(); }), std::string("IllegalStateException: ") + NO_BODY);
    EXPECT_EQ(thrownBy([&] { notification.execute(); }), std::string("IllegalStateException: ") + NO_BODY);
    EXPECT_THAT(log.messages(), ElementsAre(std::string("ERROR ") + NO_BODY, std::string("ERROR ") + NO_BODY));
}

TEST_F(Requests, NeedABodyBeforeItMattersThatTheyWereSent) {
    std::istringstream body("x");
    NotifyRequest request(&client, name, "/r");
    request.setBodyStream(&body);
    request.execute();
    request.setBodyStream(nullptr);
    EXPECT_EQ(thrownBy([&] { request.execute(); }), std::string("IllegalStateException: ") + NO_BODY);
}

TEST_F(Requests, TakeOneBodyOnly) {
    std::istringstream body("x");
    PostRequest post(&client, name, "/r");
    post.setBody("y", 1);
    post.setBodyStream(&body);
    LogCapture log;
    EXPECT_EQ(thrownBy([&] { post.execute(); }), std::string("IllegalStateException: ") + TWO_BODIES);
    EXPECT_THAT(log.messages(), ElementsAre(std::string("ERROR ") + TWO_BODIES));
}

TEST_F(Requests, RunOnce) {
    PostRequest post(&client, name, "/r");
    post.setBody("x", 1);
    exchange(post, "x");
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    EXPECT_EQ(thrownBy([&] { post.execute(); }), std::string("IllegalStateException: ") + COMMITTED);
    EXPECT_THAT(log.messages(), ElementsAre(std::string("ERROR ") + COMMITTED));
}

TEST_F(Requests, LetTheFailureToConnectThrough) {
    server.close();
    PostRequest post(&client, name, "/r");
    post.setBody("x", 1);
    EXPECT_EQ(thrownBy([&] { post.execute(); }), "QvPipeException: Could not connect to pipe.");
    EXPECT_FALSE(post.isCommitted());
}

TEST_F(Requests, MayBeTriedAgainAfterAFailureToConnect) {
    auto other = std::make_unique<PostRequest>(&client, name + "x", "/r");
    other->setBody("x", 1);
    EXPECT_EQ(thrownBy([&] { other->execute(); }), "QvPipeException: Could not connect to pipe.");
    RawServer late(name + "x");
    auto executing = execute(*other);
    const auto accepted = late.accept();
    RawServer::readUntil(*accepted, "x");
    RawServer::write(*accepted, OK_RESPONSE);
    EXPECT_EQ(executing.get(), "nothing");
}

TEST_F(Requests, OfTheTwoKindsUsePipesOfTheirOwn) {
    {
        PostRequest post(&client, name, "/r");
        post.setBody("x", 1);
        exchange(post, "x");
    }
    NotifyRequest notification(&client, name, "/r");
    notification.setBody("y", 1);
    notification.execute();
    EXPECT_THAT(RawServer::readUntil(*server.accept(), "y"), ::testing::StartsWith("NOTIFY"));
}

// ---- A pipe that breaks ----

TEST_F(Requests, AreSentAgainWhenAPooledPipeTurnsOutToBeBroken) {
    for (int i = 0; i < 2; ++i) {
        NotifyRequest request(&client, name, "/" + std::to_string(i));
        request.setBody("x", 1);
        if (i == 1) pipe.reset();  // the server has hung up meanwhile
        LogCapture log;
        EXPECT_THAT(notify(request, "x"), ::testing::StartsWith("NOTIFY /" + std::to_string(i)));
        EXPECT_EQ(log.count("DEBUG Lost connection to server, attempt request with new connection. "
                            "Pipe was closed at other end."),
                  i);
    }
}

TEST_F(Requests, RemoveABrokenPipeBeforeTheyAreSentAgain) {
    {
        NotifyRequest request(&client, name, "/first");
        request.setBody("x", 1);
        notify(request, "x");
    }
    pipe.reset();
    NotifyRequest request(&client, name, "/second");
    request.setBody("x", 1);
    LogCapture log;
    notify(request, "x");
    const auto messages = log.messagesOfThisThread();
    const auto lost = std::find(messages.begin(), messages.end(),
                                "DEBUG Lost connection to server, attempt request with new connection. "
                                "Pipe was closed at other end.");
    ASSERT_GT(messages.end() - lost, 1);
    EXPECT_THAT(lost[1], ::testing::StartsWith("DEBUG Remove QvPipe Binding-"));
}

TEST_F(Requests, WithABodyStreamAreSentAgainBeforeTheirHeadWasSent) {
    {
        NotifyRequest request(&client, name, "/first");
        request.setBody("x", 1);
        notify(request, "x");
    }
    pipe.reset();
    std::istringstream body("streamed");
    NotifyRequest request(&client, name, "/second");
    request.setBodyStream(&body);
    EXPECT_THAT(notify(request, "0\r\n\r\n"), ::testing::HasSubstr("8\r\nstreamed\r\n"));
}

/// A body stream that hangs up the server's end when it is first read.
class HangUpBuffer : public std::streambuf {
  public:
    explicit HangUpBuffer(std::function<void()> hangUp) : hangUp_(std::move(hangUp)), data_(100000, 'x') {}

  protected:
    int_type underflow() override {
        if (!hangUp_) return traits_type::eof();
        hangUp_();
        hangUp_ = nullptr;
        setg(&data_[0], &data_[0], &data_[0] + data_.size());
        return 'x';
    }

  private:
    std::function<void()> hangUp_;
    std::string data_;
};

TEST_F(Requests, WithABodyStreamAreAbortedAfterTheirHeadWasSent) {
    HangUpBuffer buffer([&] { server.accept().reset(); });
    std::istream body(&buffer);
    PostRequest post(&client, name, "/r");
    post.setBodyStream(&body);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    EXPECT_EQ(thrownBy([&] { post.execute(); }), "BrokenPipeException: Pipe was closed at other end.");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Lost connection to server, the request will be aborted. "
                                            "Pipe was closed at other end."));
}

TEST_F(Requests, RemoveTheirPipeBeforeTheyReportThatTheyAreAborted) {
    HangUpBuffer buffer([&] { server.accept().reset(); });
    std::istream body(&buffer);
    PostRequest post(&client, name, "/r");
    post.setBodyStream(&body);
    LogCapture log;
    thrownBy([&] { post.execute(); });
    const auto messages = log.messagesOfThisThread();
    EXPECT_THAT(messages, ::testing::Contains(::testing::StartsWith("DEBUG Remove QvPipe Binding-")));
    EXPECT_THAT(messages.back(),
                ::testing::StartsWith("ERROR Lost connection to server, the request will be aborted."));
}

TEST_F(Requests, WithAWholeBodyEndAsCommittedAfterTheirHeadWasSent) {
    // The body is more than the pipe takes without a reader, so its writing meets the end of the server.
    const std::string large(4 << 20, 'x');
    PostRequest post(&client, name, "/r");
    post.setBody(large.data(), large.size());
    auto executing = execute(post);
    pipe = server.accept();
    RawServer::readUntil(*pipe, "\r\n\r\n");
    LogCapture log;
    pipe.reset();
    EXPECT_EQ(executing.get(), std::string("IllegalStateException: ") + COMMITTED);
    EXPECT_EQ(log.count("DEBUG Lost connection to server, attempt request with new connection. "
                        "Pipe was closed at other end."),
              1);
    EXPECT_EQ(log.count(std::string("ERROR ") + COMMITTED), 1);
}

// ---- A body stream that fails ----

class BadBuffer : public std::streambuf {
  protected:
    int_type underflow() override {
        if (served_++ > 0) throw 1;  // makes the stream bad
        return setg(data_, data_, data_ + sizeof data_), 'x';
    }

  private:
    char data_[10] = {'x'};
    int served_ = 0;
};

TEST_F(Requests, NeverMakeABodyStreamThatFailsLookComplete) {
    BadBuffer buffer;
    std::istream body(&buffer);
    PostRequest post(&client, name, "/r");
    post.setBodyStream(&body);
    EXPECT_EQ(thrownBy([&] { post.execute(); }), "QvPipeException: The body stream failed before its end.");
    pipe = server.accept();
    RawServer::readUntil(*pipe, "\r\n\r\n");
    EXPECT_TRUE(isClosed(*pipe));  // no chunk, and above all not the last one
}

TEST_F(Requests, DoNotLoopOverABodyStreamThatFailedBefore) {
    std::istringstream body("x");
    body.setstate(std::ios_base::failbit);
    NotifyRequest request(&client, name, "/r");
    request.setBodyStream(&body);
    EXPECT_EQ(thrownBy([&] { request.execute(); }), "QvPipeException: The body stream failed before its end.");
}

TEST_F(Requests, FailWhenTheServerHangsUpInsteadOfAnswering) {
    PostRequest post(&client, name, "/r");
    post.setBody("x", 1);
    auto executing = execute(post);
    pipe = server.accept();
    RawServer::readUntil(*pipe, "x");
    std::this_thread::sleep_for(20ms);  // either side of the moment in which the client begins to read is right
    pipe.reset();
    EXPECT_THAT(executing.get(),
                ::testing::AnyOf("InterruptedException: Reached the stream end-of-file before the expected new line.",
                                 "QvPipeException: QvPipe read failed."));
}

// ---- Connection managers of the application ----

/// A manager with one pipe, which shows what is done with it.
class OnePipeManager : public QvtpConnectionManager {
  public:
    explicit OnePipeManager(const std::string& pipeName) : pipe(pipeName, true, true) {}
    QvPipe* getPipe(const std::string& pipeName, const std::string& mode) override {
        calls += "get(" + pipeName + "," + mode + ") ";
        return &pipe;
    }
    void returnPipe(QvPipe*) override {
        calls += "return ";
        if (failure) failure();
    }
    void removePipe(QvPipe*) override { calls += "remove "; }

    QvPipe pipe;
    std::string calls;
    std::function<void()> failure;
};

class OwnManager : public Requests {
  protected:
    OwnManager() : manager(name), ownClient(&manager) {
        pipe = server.accept();
        manager.pipe.getOutputStream()->rdbuf()->pubsetbuf(area, sizeof area);
    }
    void notifyOnce() {
        NotifyRequest request(&ownClient, name, "/r");
        request.setBody("x", 1);
        request.execute();
    }

    char area[100];
    OnePipeManager manager;
    QvtpClient ownClient;
};

TEST_F(OwnManager, IsAskedForThePipeAndGetsItBackWithTheRequestsEnd) {
    notifyOnce();
    EXPECT_EQ(manager.calls, "get(" + name + ",w) return ");
}

TEST_F(OwnManager, IsToldToRemoveThePipeAfterAFailure) {
    pipe.reset();
    manager.failure = [] {};
    std::istringstream body("x");
    NotifyRequest request(&ownClient, name, "/r");
    body.setstate(std::ios_base::badbit);
    request.setBodyStream(&body);
    thrownBy([&] { request.execute(); });
    EXPECT_THAT(manager.calls, ::testing::HasSubstr("remove "));
    EXPECT_THAT(manager.calls, ::testing::Not(::testing::HasSubstr("return ")));
}

TEST_F(OwnManager, IsNotGivenBackWhatItWasToldToRemove) {
    RawServer::write(*pipe, "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nabc\r\n");
    {
        PostRequest request(&ownClient, name, "/r");
        request.setBody("x", 1);
        const std::unique_ptr<QvtpResponse> unread(request.execute());
    }
    EXPECT_EQ(manager.calls, "get(" + name + ",rw) remove ");
}

/// A manager that has broken pipes alone, and some time none.
class BrokenPipesManager : public QvtpConnectionManager {
  public:
    QvPipe* getPipe(const std::string&, const std::string&) override {
        if (++asked <= BROKEN) throw Quovane::Io::BrokenPipeException("broken");
        throw Quovane::Io::QvPipeException("none left");
    }
    void returnPipe(QvPipe*) override {}
    void removePipe(QvPipe*) override {}

    static constexpr int BROKEN = 5;
    int asked = 0;
};

TEST(BrokenPipes, AreReplacedAgainAndAgain) {
    BrokenPipesManager manager;
    QvtpClient client(&manager);
    NotifyRequest request(&client, uniquePipeName(), "/r");
    request.setBody("x", 1);
    EXPECT_EQ(thrownBy([&] { request.execute(); }), "QvPipeException: none left");
    EXPECT_EQ(manager.asked, BrokenPipesManager::BROKEN + 1);
}

TEST_F(OwnManager, MayNotKnowThePipeAnyMore) {
    manager.failure = [] { throw Quovane::Io::IllegalStateException("unknown"); };
    EXPECT_EQ(thrownBy([&] { notifyOnce(); }), "nothing");
}

TEST_F(OwnManager, MayThrowFromTheDestructionOfARequest) {
    manager.failure = [] { throw std::runtime_error("pool"); };
    EXPECT_EQ(thrownBy([&] { notifyOnce(); }), "std::exception: pool");
}

TEST_F(OwnManager, DoesNotReplaceAnExceptionThatIsOnItsWay) {
    manager.failure = [] { throw std::runtime_error("pool"); };
    EXPECT_EQ(thrownBy([&] {
                  NotifyRequest request(&ownClient, name, "/r");
                  request.setBody("x", 1);
                  request.execute();
                  throw std::runtime_error("first");
              }),
              "std::exception: first");
}

TEST_F(OwnManager, MayThrowWithinADestructorThatRunsBecauseOfAnException) {
    manager.failure = [] { throw std::runtime_error("pool"); };
    std::string within;
    struct Cleaner {
        ~Cleaner() { action(); }
        std::function<void()> action;
    };
    thrownBy([&] {
        const Cleaner cleaner{[&] { within = thrownBy([&] { notifyOnce(); }); }};
        throw std::runtime_error("first");
    });
    EXPECT_EQ(within, "std::exception: pool");
}

}  // namespace
}  // namespace qvtp_test
