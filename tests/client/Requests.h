#pragma once

#include <qvtp/client/NotifyRequest.h>
#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpConnectionManager.h>
#include <qvtp/client/QvtpResponse.h>

#include "examples/BodyOf.h"
#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>

namespace qvtp_test {

using namespace Quovane::Qvtp;
using Quovane::Io::QvPipe;
using namespace std::chrono_literals;

inline constexpr char OK_RESPONSE[] = "QVTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nhi";

/// Has one pipe, with small areas and a read time-out of its own.
class OwnPipe : public QvtpConnectionManager {
  public:
    explicit OwnPipe(const std::string& name) : pipe(name, true, true) {
        pipe.setReadTimeout(5000);
        pipe.getInputStream()->rdbuf()->pubsetbuf(input, sizeof input);
        pipe.getOutputStream()->rdbuf()->pubsetbuf(output, sizeof output);
    }
    QvPipe* getPipe(const std::string&, const std::string&) override { return &pipe; }
    void returnPipe(QvPipe*) override { ++returned; }
    void removePipe(QvPipe*) override { ++removed; }

    char input[100];
    char output[100];
    QvPipe pipe;
    int returned = 0;
    int removed = 0;
};

/// A client, and a server of which the test sees the bytes.
class Requests : public ::testing::Test {
  protected:
    /// Executes a request in the background; "nothing", or what it threw.
    std::future<std::string> execute(PostRequest& request) {
        return std::async(std::launch::async, [&] { return thrownBy([&] { response.reset(request.execute()); }); });
    }
    /// Lets a request be answered with these bytes and returns what was sent.
    std::string exchange(PostRequest& request, const std::string& ending, const std::string& answer = OK_RESPONSE) {
        auto executing = execute(request);
        if (pipe == nullptr) pipe = server.accept();
        const std::string sent = RawServer::readUntil(*pipe, ending);
        RawServer::write(*pipe, answer);
        EXPECT_EQ(executing.get(), "nothing");
        return sent;
    }
    std::string notify(NotifyRequest& request, const std::string& ending) {
        request.execute();
        if (pipe == nullptr) pipe = server.accept();
        return RawServer::readUntil(*pipe, ending);
    }
    std::string bodyOfResponse() { return example::bodyOf(*response); }
    /// Whether the client has hung up, with nothing left to read.
    bool isClosed(QvPipe& end) {
        char byte = 0;
        std::string outcome;
        const auto readOne = [&] { outcome = std::to_string(end.readPipe(&byte, 0, 1, 1000)); };
        const std::string thrown = thrownBy(readOne);
        return thrown == "QvPipeException: QvPipe read failed." || (thrown == "nothing" && outcome == "-1");
    }

    const std::string name = uniquePipeName();
    RawServer server{name};
    QvtpClient client;
    std::unique_ptr<QvPipe> pipe;
    std::unique_ptr<QvtpResponse> response;
};

}  // namespace qvtp_test
