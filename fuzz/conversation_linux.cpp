// A client writes whatever it likes to a worker of a server, in pieces, and ends. The worker answers in whole
// responses, and ends. Where the pieces end makes no difference.

#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>
#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>
#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>
#include <qvtp/server/QvtpServerResponse.h>

#include "examples/BodyOf.h"
#include "fuzz/Waits_linux.h"
#include "server/RequestWorker.h"
#include "server/ThreadUse.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

using namespace Quovane::Qvtp;
using Quovane::Internal::Qvtp::RequestWorker;
using Quovane::Internal::Qvtp::ThreadUse;

constexpr long long LARGEST_BODY = 1 << 20;  // a larger one is not read as a block
const std::string NAME = "conversation-" + std::to_string(::getpid());

class Echo : public QvtpHandler {
  public:
    void handleNotify(QvtpServerRequest* request) override { bodyOf(*request); }
    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        const std::string body = request->getHeader("X-Unread").empty() ? bodyOf(*request) : "unread";
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(body.data(), body.size());
        response->send();
    }

  private:
    static std::string bodyOf(QvtpServerRequest& request) {
        const std::string length = request.getHeader(QvtpMessage::HEADER_CONTENT_LENGTH);
        if (std::strtoll(length.c_str(), nullptr, 10) >= LARGEST_BODY) return "too large";
        try {
            return example::bodyOf(request);
        } catch (const std::logic_error&) {
            std::abort();  // the server would close the connection, as for any exception of the handler's own
        }
    }
};

void require(bool condition) {
    if (!condition) std::abort();
}

/// A client with a socket of the system, since it can end writing and still read. Whenever its server waits, it reads
/// all that there is and writes its next piece. In the end it ends writing.
class Writer : public Waits::Peer {
  public:
    /// `most`: the size of all pieces; 0 for one piece.
    Writer(const std::string& path, const std::uint8_t* data, std::size_t size, std::size_t most)
        : data_(data), size_(size), most_(most == 0 ? size : most) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        require(::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    }
    ~Writer() override { ::close(fd_); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    bool act() override {
        const bool hasRead = read();
        return write() || hasRead;
    }

    /// All that the server has sent.
    const std::string& answer() {
        read();
        return answer_;
    }

  private:
    bool read() {
        const std::size_t before = answer_.size();
        char piece[4096];
        for (;;) {
            const ssize_t count = ::recv(fd_, piece, sizeof piece, MSG_DONTWAIT);
            if (count <= 0) return answer_.size() > before;
            answer_.append(piece, static_cast<std::size_t>(count));
        }
    }

    bool write() {
        if (hasEnded_) return false;
        const std::size_t length = std::min(most_, size_ - sent_);
        const ssize_t count = length > 0 ? ::send(fd_, data_ + sent_, length, MSG_NOSIGNAL | MSG_DONTWAIT) : 0;
        if (count > 0) {
            sent_ += static_cast<std::size_t>(count);
        } else if (length == 0 || errno == EPIPE) {  // all is out, or the server has hung up
            ::shutdown(fd_, SHUT_WR);
            hasEnded_ = true;
        }
        return count > 0 || hasEnded_;
    }

    int fd_ = -1;
    const std::uint8_t* const data_;
    const std::size_t size_;
    const std::size_t most_;
    std::size_t sent_ = 0;
    bool hasEnded_ = false;
    std::string answer_;
};

/// A server of one connection after another, all on the caller's thread: what it does with each is a worker's.
class Server {
  public:
    Server() : directory_(directory()), server_(NAME, 1), pipe_(NAME + "-connections", true, true) {
        server_.setHandler(&handler_);
        server_.setUnhandledExceptionPolicy(QvtpServer::CLOSE);
        pipe_.setAcceptTimeout(1000);
    }

    std::string path() const { return directory_ + "/" + NAME + "-connections.sock"; }

    /// To the end of the connection.
    void serveOne() {
        auto connection = std::make_unique<Quovane::Io::QvPipe>();
        pipe_.accept(*connection);
        threads_->begin();
        RequestWorker(std::move(connection), &server_, "Worker-1", threads_).run();
    }

  private:
    static std::string directory() {
        ::setenv("QVTP_PIPE_DIR", "/tmp/qvtp-fuzz-pipes", 0);  // scripts/fuzz has one that it removes
        ::setenv("QVTP_SPIN", "0", 0);                         // nothing comes while the only thread tries
        return std::getenv("QVTP_PIPE_DIR");
    }

    const std::string directory_;
    Echo handler_;
    QvtpServer server_;
    Quovane::Io::ServerQvPipe pipe_;
    const std::shared_ptr<ThreadUse> threads_ = std::make_shared<ThreadUse>(3);
};

/// Each response is whole and right.
void checkResponses(const std::string& bytes) {
    static QvtpClient client;
    std::istringstream pipe(bytes);
    while (pipe.peek() != std::istringstream::traits_type::eof()) {
        QvtpResponse response(&client, &pipe);
        if (response.getStatusCode() != QvtpMessage::STATUS_OK) std::abort();
        example::bodyOf(response);
    }
}

std::string answerTo(const std::uint8_t* data, std::size_t size, std::size_t most) {
    static Server server;
    Writer writer(server.path(), data, size, most);
    Waits::setPeer(&writer);
    server.serveOne();
    Waits::setPeer(nullptr);
    return writer.answer();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint8_t cut = data[0];
    const std::string answer = answerTo(data + 1, size - 1, cut);
    checkResponses(answer);
    if (cut % 2 == 1) require(answerTo(data + 1, size - 1, 0) == answer);
    return 0;
}
