#include "server/Worker.h"
#include "support/HasForm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

TEST_F(Worker, AnswersPostAfterPostOnOneConnection) {
    LogCapture log;
    server.start();
    RawClient client(server.name);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    // The worker is entered once its thread has begun, by which time it may have answered.
    EXPECT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == 1; }));
    server.stop();
    EXPECT_EQ(log.count("DEBUG Deleting worker " + full()), 1);
    EXPECT_FALSE(log.contains("DEBUG Deleting worker " + full(2)));
}

TEST_F(Worker, AnswersRequestsThatComeTogether) {
    server.start();
    RawClient client(server.name);
    const std::string twice = std::string(HELLO_BACK) + HELLO_BACK;
    EXPECT_EQ(client.exchange(std::string(POST_HELLO) + POST_HELLO, twice), twice);
}

TEST_F(Worker, HandsANotificationToTheHandlerWithoutAResponse) {
    std::promise<std::string> notified;
    server.handler.onNotify = [&](QvtpServerRequest& request) {
        notified.set_value(request.getResource() + ":" + bodyOf(request));
    };
    server.start();
    RawClient client(server.name);
    client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 2\r\n\r\nok");
    EXPECT_EQ(notified.get_future().get(), "/n:ok");
    EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
}

TEST_F(Worker, LogsItsLifeLineByLine) {
    LogCapture log;
    server.start();
    {
        RawClient client(server.name);
        client.exchange(POST_HELLO, HELLO_BACK);
        client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n");
        ASSERT_TRUE(eventuallyLogs(log, "DEBUG Complete processing of NOTIFY request (" + full() + ")."));
        ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == 1; }));
    }
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Closing QvPipe (" + full() + "). "));
    server.stop();
    EXPECT_TRUE(log.contains("DEBUG ServerQvPipe " + server.name + " has accepted a QvPipe connection."));
    std::vector<std::string> lines;
    for (const std::string& line : workerLines(log)) {
        // How the end of the client is met depends on whether the worker is waiting already. A worker that has not done
        // its last step when the server stops is stopped.
        const auto says = [&](const char* text) { return line.find(text) != std::string::npos; };
        if (!says("Exception - ") && !says("Activated") && !says("Stopping worker")) lines.push_back(line);
    }
    EXPECT_EQ(log.count("DEBUG Activated worker thread " + full() + " (1)."), 1);
    EXPECT_THAT(lines, ElementsAre("DEBUG Begin processing of POST request (" + full() + ").",
                                   "DEBUG Complete processing of POST request (" + full() + ").",
                                   "DEBUG Begin processing of NOTIFY request (" + full() + ").",
                                   "DEBUG Complete processing of NOTIFY request (" + full() + ").",
                                   "DEBUG Closing QvPipe (" + full() + "). ", "DEBUG Deleting worker " + full(),
                                   "DEBUG \nQvtpServer " + server.name +
                                       " Summary:\n"
                                       "    Total POST requests:       1\n"
                                       "    Total NOTIFY requests:     1\n"
                                       "    Total workers used:        1\n"
                                       "    Total idle timeouts:       0\n"
                                       "    Total waits for thread:    0\n"
                                       "    Peak number of threads:    1\n"));
}

TEST_F(Worker, HangsUpOnAClientThatGoesQuiet) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 80);
    server.start();
    LogCapture log;
    RawClient client(server.name);
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_TRUE(
        log.contains("DEBUG TimeoutException - " + full() + " timed out waiting for a request.  QvPipe read timeout."));
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Closing QvPipe (" + full() + "). "));
    // It logs that shortly before it has ended.
    EXPECT_TRUE(eventually([&] {
        reap();
        return log.contains("DEBUG Deleting idle worker " + full() + ".");
    }));
    EXPECT_TRUE(log.contains("DEBUG Deleting worker " + full()));
}

TEST_F(Worker, IsCountedAsAnIdleTimeoutWhenItIsReaped) {
    server.start();
    LogCapture log;
    RawClient(server.name).exchange(POST_HELLO, HELLO_BACK);
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Closing QvPipe (" + full() + "). "));
    std::vector<std::unique_ptr<RawClient>> others;  // connected to the end: they are not reaped
    ASSERT_TRUE(eventually([&] {
        others.push_back(std::make_unique<RawClient>(server.name));
        others.back()->exchange(POST_HELLO, HELLO_BACK);
        return log.contains("DEBUG Deleting idle worker " + full() + ".");
    }));
    server.stop();
    EXPECT_NE(log.text().find("    Total idle timeouts:       1\n"), std::string::npos);
}

TEST_F(Worker, ReadsTheHeadUnderTheIdleTimeoutAndTheBodyUnderTheReceiveTimeout) {
    server.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 60);
    server.start();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    RawClient client(server.name);
    client.write("POST /slow QVTP/1.0\r\nContent-");
    std::this_thread::sleep_for(150ms);  // longer than the receive time-out
    client.write("Length: 5\r\n\r\nhe");
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_THAT(log.messages(), ElementsAre("ERROR QvPipeException - " + full() + ". QvPipe read timeout.",
                                            "ERROR Could not process the /slow request. The pipe will be closed."));
}

TEST_F(Worker, ReadsTheFirstHeadUnderTheIdleTimeoutToo) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 80);
    server.start();
    RawClient client(server.name);
    client.write("POST /slow QVTP/1.0\r\nContent-");
    EXPECT_EQ(client.readToEnd(), "");
}

TEST_F(Worker, WaitsForEveryRequestUnderTheIdleTimeout) {
    server.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 60);
    server.start();
    RawClient client(server.name);
    EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    std::this_thread::sleep_for(150ms);  // longer than the receive time-out
    EXPECT_EQ(client.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
}

TEST_F(Worker, ReportsAConnectionThatEndedBeforeItWasRead) {
    LogCapture log;
    { RawClient client(server.name); }
    server.start();
    const std::string line =
        "ERROR QvPipeException - " + full() + " error while reading request start line. QvPipe read failed.";
    EXPECT_TRUE(eventuallyLogs(log, line));
}

TEST_F(Worker, TakesTheEndOfAConnectionWhileItWaitsForARequestQuietly) {
    server.start();
    LogCapture log;
    RawClient client(server.name);
    client.exchange(POST_HELLO, HELLO_BACK);
    std::this_thread::sleep_for(50ms);  // the worker waits again
    client.close();
    EXPECT_TRUE(eventuallyLogs(log, "DEBUG InterruptedException - " + full() +
                                        ". Reached the stream end-of-file before the expected new line."));
}

TEST_F(Worker, IgnoresARequestOfAnotherMethod) {
    server.start();
    for (const char* method : {"GET", "post", "NONE", "POSTX"}) {
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        RawClient client(server.name);
        client.write(std::string(method) + " /r QVTP/1.0\r\nContent-Length: 5\r\n\r\nhello");
        EXPECT_EQ(client.readToEnd(), "");
        ASSERT_EQ(log.messages().size(), 1U);
        EXPECT_THAT(log.messages()[0], HasForm("ERROR Unrecognized request method \\(" + server.name +
                                               "/Worker-[0-9]+\\), the full message will be ignored\\."));
    }
}

TEST_F(Worker, ClosesOnAHeadWithoutALength) {
    server.start();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    RawClient client(server.name);
    client.write("POST /r QVTP/1.0\r\n\r\n");
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_THAT(log.messages(),
                ElementsAre("ERROR The QVTP Message does not have a Content-Length or Transfer-Encoding header",
                            "ERROR QvPipeException - " + full() +
                                " error while reading request start line. The QVTP Message does not have a "
                                "Content-Length or Transfer-Encoding header"));
}

TEST_F(Worker, DoesNotDisturbOtherConnectionsByAMalformedOne) {
    server.start();
    RawClient good(server.name);
    good.exchange(POST_HELLO, HELLO_BACK);
    for (const char* garbage :
         {"\x01\x02\r\n\r\n", "POST /r QVTP/1.0\r\nTransfer-Encoding: Chunked\r\n\r\n",
          "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\nfffffffff\r\n", "\r\n\r\n\r\nX\n\n"}) {
        RawClient bad(server.name);
        bad.write(garbage);
        bad.close();
        EXPECT_EQ(good.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK) << garbage;
    }
}

// ---- Handlers that fail ----

class FailingHandler : public Worker {
  protected:
    /// What is logged at ERROR, and what the client gets, when a handler throws.
    template <typename Exception>
    std::vector<std::string> logOf(const Exception& exception) {
        server.handler.onPost = [exception](QvtpServerRequest&, QvtpServerResponse&) { throw exception; };
        server.start();
        LogCapture log(LogCapture::LoggingLevel::ERROR);
        RawClient client(server.name);
        client.write(POST_HELLO);
        EXPECT_EQ(client.readToEnd(), "");
        return log.messages();
    }
    const std::string couldNot = "ERROR Could not process the /echo request. The pipe will be closed.";
};

TEST_F(FailingHandler, WithAnIllegalStateClosesThePipe) {
    EXPECT_THAT(logOf(Quovane::Io::IllegalStateException("why")),
                ElementsAre("ERROR IllegalStateException - " + full() + ". why", couldNot));
}

TEST_F(FailingHandler, WithAPipeFailureClosesThePipe) {
    EXPECT_THAT(logOf(Quovane::Io::BrokenPipeException("why")),
                ElementsAre("ERROR QvPipeException - " + full() + ". why", couldNot));
}

TEST_F(FailingHandler, WithAnInterruptionClosesThePipeWithOneLine) {
    EXPECT_THAT(logOf(Quovane::Io::InterruptedException("why")),
                ElementsAre("ERROR InterruptedException - " + full() + ". why"));
}

TEST_F(FailingHandler, ThatReadsWhenTheServerStopsIsInterruptedWithOneLine) {
    server.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 20000);
    std::promise<void> reads;
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse&) {
        reads.set_value();
        bodyOf(request);
    };
    server.start();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    RawClient client(server.name);
    client.write("POST /r QVTP/1.0\r\nContent-Length: 5\r\n\r\nhe");
    reads.get_future().wait();
    std::this_thread::sleep_for(PENDING);  // until the read waits
    server.stop();
    EXPECT_THAT(log.messages(), ElementsAre("ERROR InterruptedException - " + full() + ". QvPipe read aborted."));
}

TEST_F(FailingHandler, HasItsRequestsCountedAllTheSame) {
    const auto fail = [] { throw Quovane::Io::QvPipeException("why"); };
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse&) { fail(); };
    server.handler.onNotify = [&](QvtpServerRequest&) { fail(); };
    server.start();
    LogCapture log;
    for (const char* request : {POST_HELLO, "NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n"}) {
        RawClient client(server.name);
        client.write(request);
        EXPECT_EQ(client.readToEnd(), "");
    }
    server.stop();
    EXPECT_NE(log.text().find("    Total POST requests:       1\n    Total NOTIFY requests:     1\n"),
              std::string::npos);
}

TEST_F(FailingHandler, ThatSendsNoBodyLogsWhy) {
    server.handler.onPost = [](QvtpServerRequest&, QvtpServerResponse& response) { response.send(); };
    server.start();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    RawClient client(server.name);
    client.write(POST_HELLO);
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_EQ(log.messages().size(), 3U);
}

TEST_F(FailingHandler, ThatIsMissingClosesThePipe) {
    server.server.setHandler(nullptr);
    server.start();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    RawClient client(server.name);
    client.write(POST_HELLO);
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_THAT(log.messages(),
                ElementsAre("ERROR IllegalStateException - " + full() + ". No handler has been set.", couldNot));
}

TEST_F(FailingHandler, WithAForeignExceptionCostsItsWorkerUntilTheServerStops) {
    server.handler.onPost = [](QvtpServerRequest&, QvtpServerResponse&) { throw std::runtime_error("foreign"); };
    server.start();
    LogCapture log;
    RawClient client(server.name);
    client.write(POST_HELLO);
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Begin processing of POST request (" + full() + ")."));
    server.stop();
    EXPECT_TRUE(log.contains("DEBUG Stopping worker " + full()));
    EXPECT_TRUE(log.contains("INFO ************* Worker thread not deleted: Worker-1"));
    EXPECT_FALSE(log.contains("DEBUG Deleting worker " + full()));
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_EQ(server.server.totalRequestProcessors(), 0);
}

// ---- What a handler leaves unread ----

class UnreadBody : public Worker {
  protected:
    void SetUp() override {
        server.handler.onPost = [](QvtpServerRequest& request, QvtpServerResponse& response) {
            if (request.getResource() == "/peek") request.getBodyStream()->get();
            response.setStatusCode(200);
            response.setBody("hello", 5);
            response.send();
        };
        server.start();
    }
    std::string post(const std::string& body, const std::string& resource = "/skip") {
        return "POST " + resource + " QVTP/1.0\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
};

TEST_F(UnreadBody, IsSkippedBeforeTheNextRequest) {
    RawClient client(server.name);
    for (const char* resource : {"/skip", "/peek"}) {
        EXPECT_EQ(client.exchange(post("POST /trap QVTP/1.0\r\n\r\n", resource), HELLO_BACK), HELLO_BACK);
        EXPECT_EQ(client.exchange(post("x"), HELLO_BACK), HELLO_BACK);
    }
    EXPECT_EQ(
        client.exchange("POST /s QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n", HELLO_BACK),
        HELLO_BACK);
    EXPECT_EQ(client.exchange(post("x"), HELLO_BACK), HELLO_BACK);
}

TEST_F(UnreadBody, IsSkippedUpTo256KiB) {
    RawClient client(server.name);
    EXPECT_EQ(client.exchange(post(std::string(256 * 1024, 'x')), HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(client.exchange(post("x"), HELLO_BACK), HELLO_BACK);
}

TEST_F(UnreadBody, EndsTheConnectionAfterTheResponseBeyondThat) {
    RawClient client(server.name);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    try {
        client.write(post(std::string(256 * 1024 + 1, 'x')));
    } catch (Quovane::Io::BrokenPipeException&) {
        // The server closes while the last bytes are on their way, with less buffer between them than on Linux.
    }
    EXPECT_EQ(client.readToEnd(), HELLO_BACK);
    EXPECT_THAT(log.messages(), ::testing::IsEmpty());
}

TEST_F(UnreadBody, LetsNoFurtherRequestComeAfterTooMuch) {
    RawClient client(server.name);
    try {
        client.write(post(std::string(256 * 1024 + 1, 'x')) + post("x"));
    } catch (Quovane::Io::BrokenPipeException&) {
        // As above.
    }
    EXPECT_EQ(client.readToEnd(), HELLO_BACK);
}

TEST_F(UnreadBody, EndsTheConnectionWhenItIsMalformed) {
    RawClient client(server.name);
    client.write("POST /s QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabcXX");
    EXPECT_EQ(client.readToEnd(), HELLO_BACK);
}

TEST_F(UnreadBody, EndsTheConnectionWhenItDoesNotCome) {
    TestServer quick;
    quick.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 50);
    quick.handler.onPost = server.handler.onPost;
    quick.start();
    RawClient client(quick.name);
    client.write("POST /s QVTP/1.0\r\nContent-Length: 5\r\n\r\nab");
    EXPECT_EQ(client.readToEnd(), HELLO_BACK);
}

TEST_F(UnreadBody, ThatDoesNotComeIsNotWaitedForUntilTheIdleTimeout) {
    TestServer patient;
    patient.server.setOption(QvtpServer::RECEIVE_TIMEOUT, 50);
    patient.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    patient.handler.onPost = server.handler.onPost;
    patient.start();
    RawClient client(patient.name);
    client.write("POST /s QVTP/1.0\r\nContent-Length: 5\r\n\r\nab");
    EXPECT_EQ(client.readToEnd(), HELLO_BACK);
}

// ---- A server that does not write ----

TEST(ReadOnlyServer, ServesNotifications) {
    TestServer server(0);
    std::promise<std::string> notified;
    server.handler.onNotify = [&](QvtpServerRequest& request) { notified.set_value(bodyOf(request)); };
    server.start();
    RawClient client(server.name, false);
    client.write("NOTIFY /n QVTP/1.0\r\nContent-Length: 2\r\n\r\nok");
    EXPECT_EQ(notified.get_future().get(), "ok");
}

TEST(ReadOnlyServer, EndsAPostAsAnIllegalState) {
    TestServer server(0);
    server.start();
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    RawClient client(server.name, false);
    client.write(POST_HELLO);
    const std::string full = server.name + "/Worker-1";
    ASSERT_TRUE(eventually([&] { return log.messages().size() == 2; }));
    EXPECT_THAT(log.messages(),
                ElementsAre("ERROR IllegalStateException - " + full + ". Pipe is not bound with write access.",
                            "ERROR Could not process the /echo request. The pipe will be closed."));
}

}  // namespace
}  // namespace qvtp_test
