#pragma once

#include <qvtp/io/QvPipe.h>
#include <qvtp/server/QvtpServer.h>

#include "support/LogCapture.h"
#include "support/RawServer.h"
#include "support/TestServer.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace qvtp_test {

using namespace Quovane::Qvtp;
using Quovane::Io::QvPipe;
using namespace std::chrono_literals;

/// After this long all workers wait, also on a machine that is busy with other things. Nothing shows that a worker
/// does, and one that comes to its wait late may be asked for its thread.
inline constexpr auto SETTLED = 200ms;

inline constexpr char POST_HELLO[] = "POST /echo QVTP/1.0\r\nContent-Length: 5\r\n\r\nhello";
inline constexpr char HELLO_BACK[] = "QVTP/1.0 200 OK\r\nContent-Length: 5\r\nServer: QvtpServer\r\n\r\nhello";

/// A client without the protocol: what a test writes and reads are the bytes on the pipe.
class RawClient {
  public:
    explicit RawClient(const std::string& name, bool readable = true) : pipe_(name, readable, true) {}

    void write(const std::string& data) { RawServer::write(pipe_, data); }
    std::string read(std::size_t size) { return RawServer::read(pipe_, size); }
    std::string exchange(const std::string& request, const std::string& expected) {
        write(request);
        return read(expected.size());
    }
    /// Waits for the server to hang up; what came before that.
    std::string readToEnd() {
        std::string all;
        char byte = 0;
        const auto readOne = [&] {
            if (pipe_.readPipe(&byte, 0, 1, 15000) < 0) throw 1;
        };
        std::string thrown;
        while ((thrown = thrownBy(readOne)) == "nothing") all += byte;
        EXPECT_NE(thrown, "TimeoutException: QvPipe read timeout.") << "the server has not hung up";
        return all;
    }
    void close() { pipe_.close(); }

  private:
    QvPipe pipe_;
};

class Worker : public ::testing::Test {
  protected:
    std::string full(int number = 1) const { return server.name + "/Worker-" + std::to_string(number); }
    /// The lines about workers, in order: those of the pipe layer and of messages are left out.
    static std::vector<std::string> workerLines(const LogCapture& log) {
        std::vector<std::string> lines;
        for (const std::string& message : log.messages()) {
            if (message.find("orker") != std::string::npos) lines.push_back(message);
        }
        return lines;
    }
    bool eventuallyLogs(const LogCapture& log, const std::string& message) {
        return eventually([&] { return log.contains(message); });
    }
    /// A client that has a worker, which waits for its first request.
    std::unique_ptr<RawClient> clientWithWorker() {
        const int before = server.server.totalRequestProcessors();
        auto client = std::make_unique<RawClient>(server.name);
        EXPECT_TRUE(eventually([&] { return server.server.totalRequestProcessors() > before; }));
        return client;
    }
    /// Makes the server look for finished workers.
    void reap() { RawClient(server.name).exchange(POST_HELLO, HELLO_BACK); }

    TestServer server;
};

}  // namespace qvtp_test
