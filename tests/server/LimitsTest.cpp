#include "platform/BackEnd.h"
#include "server/Worker.h"

#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qvtp_test {
namespace {

constexpr char LAST_CHUNK[] = "0\r\n\r\n";

/// A server with limits, and clients that keep to them or do not.
class Limits : public Worker {
  protected:
    ~Limits() override { server.stop(); }  // before what its handler uses

    static std::string answer(const std::string& status) {
        return "QVTP/1.0 " + status + "\r\nContent-Length: 0\r\nServer: QvtpServer\r\n\r\n";
    }
    /// The line of a limit that worker 1 has found exceeded.
    std::string line(const std::string& what) const {
        return "WARN Limit exceeded (" + full() + "). " + what + " The pipe will be closed.";
    }
    static std::string chunk(const std::string& data) {
        std::ostringstream size;
        size << std::hex << data.size();
        return size.str() + "\r\n" + data + "\r\n";
    }
    void startWith(const QvtpServer::Limits& wanted) {
        server.server.setLimits(wanted);
        server.start();
    }
    /// What the server answers to these bytes before it hangs up.
    std::string refusal(const std::string& request) {
        RawClient client(server.name);
        client.write(request);
        return client.readToEnd();
    }
    int warnings() const {
        int count = 0;
        for (const std::string& message : log.messages()) count += message.rfind("WARN Limit", 0) == 0;
        return count;
    }
    int errors() const {
        int count = 0;
        for (const std::string& message : log.messages()) count += message.rfind("ERROR ", 0) == 0;
        return count;
    }
    /// One line and no other that anybody has to look at.
    void expectOnly(const std::string& what) {
        EXPECT_TRUE(eventuallyLogs(log, line(what))) << what;
        EXPECT_EQ(warnings(), 1);
        EXPECT_EQ(errors(), 0);
    }
    void drip(RawClient& client, const std::string& data, std::atomic<bool>& stop) {
        for (const char c : data) {
            if (stop || thrownBy([&] { client.write(std::string(1, c)); }) != "nothing") return;
            std::this_thread::sleep_for(20ms);
        }
    }

    LogCapture log;
    QvtpServer::Limits limits;
};

TEST_F(Limits, ChangeNothingForRequestsThatKeepToThem) {
    limits.headBytes = static_cast<int>(std::string(POST_HELLO).size() - 5);
    limits.headers = 1;
    limits.bodyBytes = 5;
    limits.headMs = 60000;
    limits.requestMs = 60000;
    startWith(limits);
    RawClient client(server.name);
    const std::string requests = std::string(POST_HELLO) + POST_HELLO;
    const std::string answers = std::string(HELLO_BACK) + HELLO_BACK;
    EXPECT_EQ(client.exchange(requests, answers), answers);
    for (const char c : std::string(POST_HELLO)) client.write(std::string(1, c));
    EXPECT_EQ(client.read(std::string(HELLO_BACK).size()), HELLO_BACK);
    EXPECT_EQ(warnings(), 0);
}

TEST_F(Limits, AreOffUnlessTheyAreSet) {
    startWith(limits);
    RawClient client(server.name);
    std::string head = "POST /" + std::string(20000, 'r') + " QVTP/1.0\r\n";
    for (int i = 0; i < 500; ++i) head += "H" + std::to_string(i) + ": x\r\n";
    EXPECT_EQ(client.exchange(head + "Content-Length: 5\r\n\r\nhello", HELLO_BACK), HELLO_BACK);
}

TEST_F(Limits, AnswerAStartLineThatIsTooLong) {
    limits.headBytes = 100;
    startWith(limits);
    EXPECT_EQ(refusal("POST /" + std::string(1000, 'r')), answer("414 Resource-ID Too Long "));
    expectOnly("The head is longer than 100 bytes.");
}

TEST_F(Limits, AnswerAHeadThatIsTooLong) {
    limits.headBytes = 100;
    startWith(limits);
    EXPECT_EQ(refusal("POST /p QVTP/1.0\r\nA: " + std::string(1000, 'a') + "\r\n\r\n"), answer("400 Bad Request"));
    expectOnly("The head is longer than 100 bytes.");
}

TEST_F(Limits, CountTheEmptyLinesBeforeAHead) {
    limits.headBytes = 100;
    startWith(limits);
    EXPECT_EQ(refusal(std::string(1000, '\n')), "");
    expectOnly("The head is longer than 100 bytes.");
}

TEST_F(Limits, AreForTheHeadToItsLastByte) {
    const std::string head = "POST /p QVTP/1.0\r\nContent-Length: 0\r\n\r\n";
    server.handler.onPost = [](QvtpServerRequest&, QvtpServerResponse& response) { response.sendError(200, "OK"); };
    limits.headBytes = static_cast<int>(head.size());
    startWith(limits);
    RawClient client(server.name);
    EXPECT_EQ(client.exchange(head, answer("200 OK")), answer("200 OK"));
    client.write("POST /pp QVTP/1.0\r\nContent-Length: 0\r\n\r\n");  // one more
    EXPECT_EQ(client.readToEnd(), answer("400 Bad Request"));
}

TEST_F(Limits, AnswerAHeadWithTooManyHeaders) {
    limits.headers = 2;
    startWith(limits);
    RawClient client(server.name);
    const std::string two = "POST /p QVTP/1.0\r\nA: a\r\n b\r\n\tc\r\nContent-Length: 5\r\n\r\nhello";
    EXPECT_EQ(client.exchange(two, HELLO_BACK), HELLO_BACK);
    client.write("POST /p QVTP/1.0\r\nA: a\r\nA: b\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(client.readToEnd(), answer("400 Bad Request"));
    expectOnly("The head has more than 2 headers.");
}

TEST_F(Limits, CountHeadersThatBeginWithACarriageReturn) {
    limits.headers = 2;
    startWith(limits);
    // What follows the carriage return would be a continuation without it.
    EXPECT_EQ(refusal("POST /p QVTP/1.0\r\nA: a\r\nContent-Length: 0\r\n\r B: b\r\n\r\n"), answer("400 Bad Request"));
    expectOnly("The head has more than 2 headers.");
}

TEST_F(Limits, CountHeadersOfACarriageReturnAlone) {
    limits.headers = 2;
    startWith(limits);
    EXPECT_EQ(refusal("POST /p QVTP/1.0\r\nA: a\r\nContent-Length: 0\r\n\r\r\n\r\n"), answer("400 Bad Request"));
    expectOnly("The head has more than 2 headers.");
}

TEST_F(Limits, CountTheHeadersAfterAStartLineOfACarriageReturnAlone) {
    limits.headers = 1;
    startWith(limits);
    // The second line is no start line then, and is not asked for a method: nobody is answered.
    EXPECT_EQ(refusal("\r\r\nPOST /p QVTP/1.0\r\nContent-Length: 0\r\n\r\n"), "");
    expectOnly("The head has more than 1 headers.");
}

TEST_F(Limits, CountAFirstHeaderThatBeginsWithABlank) {
    limits.headers = 1;
    startWith(limits);
    EXPECT_EQ(refusal("POST /p QVTP/1.0\r\n A: a\r\nContent-Length: 0\r\n\r\n"), answer("400 Bad Request"));
    expectOnly("The head has more than 1 headers.");
}

TEST_F(Limits, DoNotCountLineEndsBeforeAHead) {
    limits.headers = 1;
    startWith(limits);
    RawClient client(server.name);
    const std::string request = std::string("\r\n\n\r\n") + POST_HELLO;
    EXPECT_EQ(client.exchange(request, HELLO_BACK), HELLO_BACK);
}

TEST_F(Limits, AnswerABodyThatIsAnnouncedAsTooLong) {
    std::atomic<int> handled{0};
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse&) { ++handled; };
    limits.bodyBytes = 4;
    startWith(limits);
    EXPECT_EQ(refusal(POST_HELLO), answer("413 Request Entity Too Large"));
    EXPECT_EQ(handled, 0);
    expectOnly("The body is longer than 4 bytes.");
}

TEST_F(Limits, TakeANegativeLengthForOneThatIsTooLong) {
    limits.bodyBytes = 4;
    startWith(limits);
    EXPECT_EQ(refusal("POST /p QVTP/1.0\r\nContent-Length: -7\r\n\r\n"), answer("413 Request Entity Too Large"));
}

TEST_F(Limits, AnswerAChunkedBodyAsSoonAsItIsTooLong) {
    limits.bodyBytes = 8;
    startWith(limits);
    const std::string head = "POST /p QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(refusal(head + chunk("12345") + chunk("6789")), answer("413 Request Entity Too Large"));
    expectOnly("The body is longer than 8 bytes.");
}

TEST_F(Limits, LetAChunkedBodyBeOfTheirLength) {
    limits.bodyBytes = 5;
    startWith(limits);
    RawClient client(server.name);
    const std::string head = "POST /p QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string request = head + chunk("he") + chunk("llo") + LAST_CHUNK;
    EXPECT_EQ(client.exchange(request, HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(client.exchange(request, HELLO_BACK), HELLO_BACK);
}

TEST_F(Limits, AreKeptAlsoByAHandlerThatReadsAsAStreamAndSwallowsWhatIsThrown) {
    std::promise<std::string> read;
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse&) {
        std::string thrown = thrownBy([&] { request.getBodyStream()->ignore(1000); });
        read.set_value(thrown);
    };
    limits.bodyBytes = 8;
    startWith(limits);
    const std::string head = "POST /p QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(refusal(head + chunk("12345") + chunk("6789")), answer("413 Request Entity Too Large"));
    EXPECT_EQ(read.get_future().get(), "QvPipeException: The body is longer than 8 bytes.");
    expectOnly("The body is longer than 8 bytes.");
}

TEST_F(Limits, EndTheConnectionWhateverTheHandlerMakesOfTheFailedRead) {
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse&) {
        if (thrownBy([&] { bodyOf(request); }) != "nothing") throw std::runtime_error("cannot read");
    };
    limits.bodyBytes = 8;
    limits.requestMs = 100;
    startWith(limits);
    const std::string chunked =
        "POST /p QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk("12345") + chunk("6789");
    const std::string slow = "POST /p QVTP/1.0\r\nContent-Length: 5\r\n\r\nhe";
    for (const auto policy : {QvtpServer::KEEP, QvtpServer::CLOSE, QvtpServer::ANSWER}) {
        server.server.setUnhandledExceptionPolicy(policy);
        EXPECT_EQ(refusal(chunked), answer("413 Request Entity Too Large")) << policy;
        EXPECT_EQ(refusal(slow), answer("408 Request Timeout")) << policy;
    }
    EXPECT_EQ(warnings(), 6);
    EXPECT_EQ(errors(), 0);
    EXPECT_EQ(log.text().find("Unhandled exception"), std::string::npos);
}

TEST_F(Limits, AddNoAnswerToOneThatTheHandlerHasSent) {
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse& response) { response.sendError(200, "OK"); };
    limits.bodyBytes = 8;
    startWith(limits);
    // What the handler left is skipped, and too long.
    const std::string head = "POST /p QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(refusal(head + chunk("12345") + chunk("6789")), answer("200 OK"));
    expectOnly("The body is longer than 8 bytes.");
}

TEST_F(Limits, AddNoAnswerToThatOfAHandlersOwnException) {
    server.server.setUnhandledExceptionPolicy(QvtpServer::ANSWER);
    server.handler.onPost = [&](QvtpServerRequest&, QvtpServerResponse&) { throw 1; };
    limits.bodyBytes = 8;
    startWith(limits);
    const std::string head = "POST /p QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(refusal(head + chunk("12345") + chunk("6789")), answer("500 Internal Server Error"));
    EXPECT_EQ(warnings(), 1);
}

TEST_F(Limits, EndANotificationWithoutAnAnswer) {
    std::atomic<int> handled{0};
    server.handler.onNotify = [&](QvtpServerRequest&) { ++handled; };
    limits.bodyBytes = 4;
    startWith(limits);
    EXPECT_EQ(refusal("NOTIFY /n QVTP/1.0\r\nContent-Length: 5\r\n\r\nhello"), "");
    EXPECT_EQ(handled, 0);
    expectOnly("The body is longer than 4 bytes.");
}

TEST_F(Limits, EndAHeadThatDrips) {
    limits.headMs = 150;
    startWith(limits);
    std::atomic<bool> stop{false};
    RawClient client(server.name);
    std::string answered;
    std::thread dripping([&] { drip(client, "POST /p QVTP/1.0\r\nA: " + std::string(1000, 'a'), stop); });
    const auto time = elapsed([&] { answered = client.readToEnd(); });
    stop = true;
    dripping.join();
    // Before "POST " has come there is nothing to answer: a busy machine may need longer for that.
    EXPECT_THAT(answered, ::testing::AnyOf(answer("408 Request Timeout"), ""));
    EXPECT_GE(time, 145ms);
    EXPECT_LT(time, 10s);
    expectOnly("The head takes longer than 150 ms.");
}

TEST_F(Limits, AnswerAHeadThatStopsLongBeforeTheIdleTimeout) {
    limits.headMs = 50;
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 14000);
    startWith(limits);
    EXPECT_LT(elapsed([&] { EXPECT_EQ(refusal("POST /s"), answer("408 Request Timeout")); }), 10s);
}

TEST_F(Limits, OfTheHeadsTimeLeaveTheBodyItsOwn) {
    std::promise<void> begun;
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        begun.set_value();
        const std::string body = bodyOf(request);
        response.setStatusCode(200);
        response.setBody(body.data(), body.size());
        response.send();
    };
    limits.headMs = 1000;
    startWith(limits);
    RawClient client(server.name);
    const std::string request = POST_HELLO;
    client.write(request.substr(0, 10));
    std::this_thread::sleep_for(10ms);  // the rest of the head comes while the worker waits for it
    client.write(request.substr(10, request.size() - 15));
    ASSERT_EQ(begun.get_future().wait_for(10s), std::future_status::ready);
    std::this_thread::sleep_for(1050ms);  // the time of the head itself is what this is about
    client.write("hello");
    EXPECT_EQ(client.read(std::string(HELLO_BACK).size()), HELLO_BACK);
}

TEST_F(Limits, OfTheWholeRequestsTimeGoForTheHeadToo) {
    limits.requestMs = 10000;
    startWith(limits);
    RawClient client(server.name);
    const std::string request = POST_HELLO;
    client.write(request.substr(0, 10));
    std::this_thread::sleep_for(10ms);  // as above
    client.write(request.substr(10));
    EXPECT_EQ(client.read(std::string(HELLO_BACK).size()), HELLO_BACK);
}

TEST_F(Limits, MayBeOfOneByte) {
    limits.bodyBytes = 1;
    startWith(limits);
    EXPECT_THAT(refusal(POST_HELLO), ::testing::StartsWith("QVTP/1.0 413 "));
}

TEST_F(Limits, AnswerAHeadThatStops) {
    limits.headMs = 100;
    startWith(limits);
    EXPECT_EQ(refusal("POST /p QVTP/1.0\r\nA: a"), answer("408 Request Timeout"));
    expectOnly("The head takes longer than 100 ms.");
}

TEST_F(Limits, FreeTheWorkersThatHeadsWhichDripWouldHold) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);
    limits.headMs = 200;
    startWith(limits);
    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<RawClient>> clients;
    std::vector<std::thread> dripping;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.name));
        dripping.emplace_back([&, client = clients.back().get()] {
            drip(*client, "POST /p QVTP/1.0\r\nA: " + std::string(2000, 'a'), stop);
        });
    }
    const auto time = elapsed([&] {
        RawClient sixth(server.name);
        EXPECT_EQ(sixth.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    });
    stop = true;
    for (auto& thread : dripping) thread.join();
    EXPECT_LT(time, 15s);
}

TEST_F(Limits, EndARequestWhoseBodyDrips) {
    limits.requestMs = 150;
    startWith(limits);
    for (const std::string& head : {std::string("Content-Length: 5000"), std::string("Transfer-Encoding: chunked")}) {
        log.clear();
        std::atomic<bool> stop{false};
        RawClient client(server.name);
        client.write("POST /p QVTP/1.0\r\n" + head + "\r\n\r\n1388\r\n");
        std::string answered;
        std::thread dripping([&] { drip(client, std::string(1000, 'b'), stop); });
        const auto time = elapsed([&] { answered = client.readToEnd(); });
        stop = true;
        dripping.join();
        EXPECT_EQ(answered, answer("408 Request Timeout")) << head;
        EXPECT_LT(time, 10s);
        EXPECT_EQ(warnings(), 1);
        EXPECT_EQ(errors(), 0);
    }
}

TEST_F(Limits, GiveAHandlerThatReadsLateWhatHadArrived) {
    const std::string body(30000, 'x');
    server.handler.onPost = [&](QvtpServerRequest& request, QvtpServerResponse& response) {
        std::this_thread::sleep_for(80ms);  // longer than the limit
        response.setBody(bodyOf(request) == body ? "whole" : "other", 5);
        response.setStatusCode(200);
        response.send();
    };
    limits.requestMs = 50;
    startWith(limits);
    RawClient client(server.name);
    const std::string expected = "QVTP/1.0 200 OK\r\nContent-Length: 5\r\nServer: QvtpServer\r\n\r\nwhole";
    const std::string request = "POST /p QVTP/1.0\r\nContent-Length: 30000\r\n\r\n" + body;
    EXPECT_EQ(client.exchange(request, expected), expected);
    EXPECT_EQ(client.exchange(request, expected), expected);
    EXPECT_EQ(warnings(), 0);
}

TEST_F(Limits, LeaveLargeBodiesWhole) {
    limits.headBytes = 1000;
    limits.requestMs = 60000;
    startWith(limits);
    QvtpClient caller;
    std::string body;
    for (int i = 0; body.size() < 3000000; ++i) body += std::to_string(i);
    for (const bool streamed : {false, true}) {
        std::istringstream in(body);
        PostRequest request(&caller, server.name, "/p");
        if (streamed) {
            request.setBodyStream(&in);
        } else {
            request.setBody(body.data(), body.size());
        }
        const std::unique_ptr<QvtpResponse> response(request.execute());
        EXPECT_TRUE(bodyOf(*response) == body);
    }
}

TEST_F(Limits, LetALibraryClientReadWhyItWasRefused) {
    limits.bodyBytes = 1000;
    startWith(limits);
    QvtpClient caller;
    const std::string body(500000, 'x');  // more than a pipe holds: the server has to take it
    PostRequest request(&caller, server.name, "/p");
    request.setBody(body.data(), body.size());
    const std::unique_ptr<QvtpResponse> response(request.execute());
    EXPECT_EQ(response->getStatusCode(), 413);
}

TEST_F(Limits, HoldNoWorkerForARefusedClientThatGoesOnWriting) {
    limits.bodyBytes = 1000;
    startWith(limits);
    RawClient client(server.name);
    client.write("POST /p QVTP/1.0\r\nContent-Length: 2000000000\r\n\r\n");
    std::atomic<bool> stop{false};
    std::thread writing([&] {
        while (!stop && thrownBy([&] { client.write("x"); }) == "nothing") std::this_thread::sleep_for(5ms);
    });
    EXPECT_TRUE(eventuallyLogs(log, "DEBUG Closing QvPipe (" + full() + "). "));
    stop = true;
    writing.join();
}

TEST_F(Limits, HoldForConnectionsThatComeLater) {
    server.start();
    RawClient before(server.name);
    EXPECT_EQ(before.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    limits.bodyBytes = 4;
    server.server.setLimits(limits);
    EXPECT_EQ(before.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
    EXPECT_EQ(refusal(POST_HELLO), answer("413 Request Entity Too Large"));
}

TEST_F(Limits, AnswerNobodyOnAServerThatOnlyReads) {
    TestServer reader(0);
    limits.bodyBytes = 4;
    reader.server.setLimits(limits);
    reader.start();
    RawClient client(reader.name, false);
    client.write(POST_HELLO);
    const auto isLogged = [&] {
        return log.contains("WARN Limit exceeded (" + reader.name +
                            "/Worker-1). The body is longer than 4 bytes. The pipe will be closed.");
    };
    EXPECT_TRUE(eventually(isLogged));
    reader.stop();
    EXPECT_EQ(errors(), 0);
}

}  // namespace
}  // namespace qvtp_test
