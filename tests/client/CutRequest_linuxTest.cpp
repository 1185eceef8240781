#include "client/Requests.h"
#include "support/FailingCall_linux.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace qvtp_test {
namespace {

const char COMMITTED[] = "The start line and headers have already been committed to the request. Cannot send again.";
const char LOST[] =
    "DEBUG Lost connection to server, attempt request with new connection. Pipe was closed at other end.";
const std::string HEAD = "POST /cut QVTP/1.0\r\nContent-Length: ";
const std::string REST_OF_HEAD = "\r\nUser-Agent: QvtpClient\r\n\r\n";

/// A POST on a pipe that was used before, whose send is cut after some bytes.
class CutRequest : public Requests {
  protected:
    void SetUp() override {
        PostRequest first(&client, name, "/first");
        first.setBody("x", 1);
        exchange(first, "\r\n\r\nx");
    }

    std::string wire(const std::string& body) const { return HEAD + std::to_string(body.size()) + REST_OF_HEAD + body; }

    /// Executes a POST that is cut, and which the server answers if it comes whole.
    std::string post(const std::string& body, std::size_t cut, bool& committed) {
        PostRequest request(&client, name, "/cut");
        request.setBody(body.data(), body.size());
        auto executing = std::async(std::launch::async, [&] {
            const SendCut sendCut(cut, EPIPE);
            return thrownBy([&] { response.reset(request.execute()); });
        });
        const std::string whole = wire(body);
        if (cut > 0 && cut < whole.size()) {
            std::string thrown = executing.get();
            committed = request.isCommitted();
            return thrown;
        }
        std::unique_ptr<QvPipe> other;
        if (cut == 0) other = server.accept();
        QvPipe& used = cut == 0 ? *other : *pipe;
        EXPECT_EQ(RawServer::read(used, whole.size()), whole) << cut;
        RawServer::write(used, OK_RESPONSE);
        std::string thrown = executing.get();
        committed = request.isCommitted();
        response.reset();
        if (other != nullptr) {
            EXPECT_EQ(restOf(*pipe), "") << "a byte has left on the broken pipe";
            pipe = std::move(other);
        }
        return thrown;
    }

    /// What came before the client hung up.
    static std::string restOf(QvPipe& end) {
        std::string all;
        char byte = 0;
        while (thrownBy([&] {
                   if (end.readPipe(&byte, 0, 1, 20000) < 0) throw 1;
               }) == "nothing") {
            all += byte;
        }
        return all;
    }

    void expectAt(const std::string& body, std::size_t cut) {
        const std::string whole = wire(body);
        const bool isCommitted = cut > 0 && cut < whole.size();
        LogCapture log;
        bool committed = false;
        const std::string thrown = post(body, cut, committed);
        EXPECT_TRUE(committed) << cut;
        EXPECT_EQ(thrown, isCommitted ? std::string("IllegalStateException: ") + COMMITTED : "nothing") << cut;
        EXPECT_EQ(log.count(LOST), cut < whole.size() ? 1 : 0) << cut;
        EXPECT_EQ(log.count(std::string("ERROR ") + COMMITTED), isCommitted ? 1 : 0) << cut;
        EXPECT_EQ(log.count("DEBUG Send:    POST /cut QVTP/1.0"), 1) << cut;
        if (!isCommitted) return;
        EXPECT_EQ(restOf(*pipe), whole.substr(0, cut));
        pipe.reset();
        SetUp();  // a new pipe for the pool
    }
};

TEST_F(CutRequest, IsReplacedBeforeItsFirstByteAndEndsAsCommittedAfterIt) {
    const std::string body = "0123456789";
    for (std::size_t cut = 0; cut <= wire(body).size(); ++cut) expectAt(body, cut);
}

TEST_F(CutRequest, EndsSoAlsoInALargeBody) {
    const std::string body(100000, 'b');
    const std::size_t head = wire(body).size() - body.size();
    for (const std::size_t cut :
         {std::size_t{0}, std::size_t{1}, head - 1, head, head + 1, head + 4096, head + 99999, head + 100000}) {
        expectAt(body, cut);
    }
}

}  // namespace
}  // namespace qvtp_test
