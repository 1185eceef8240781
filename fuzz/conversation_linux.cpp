// A client writes whatever it likes to a server, in pieces, and ends. The server answers in whole responses, and ends.

#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>
#include <qvtp/io/QvPipeException.h>
#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>
#include <qvtp/server/QvtpServerResponse.h>

#include "examples/BodyOf.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

namespace {

using namespace Quovane::Qvtp;

constexpr std::size_t LARGEST_BODY = 1 << 20;  // a larger one is not read as a block
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
        return std::strtoull(length.c_str(), nullptr, 10) < LARGEST_BODY ? example::bodyOf(request) : "too large";
    }
};

/// Serves for as long as the process lives.
std::string startServer() {
    ::setenv("QVTP_PIPE_DIR", "/tmp/qvtp-fuzz-pipes", 0);  // scripts/fuzz has one that it removes
    const std::string directory = std::getenv("QVTP_PIPE_DIR");
    static Echo handler;
    static QvtpServer server(NAME, 1);
    server.setHandler(&handler);
    server.setUnhandledExceptionPolicy(QvtpServer::CLOSE);
    std::thread([] { server.run(); }).detach();
    while (!server.isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return directory + "/" + NAME + ".sock";
}

/// A socket of the system, since it can end writing and still read.
int connectTo(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) std::abort();
    return fd;
}

std::string readToEnd(int fd) {
    std::string all;
    char piece[4096];
    for (;;) {
        const ssize_t count = ::recv(fd, piece, sizeof piece, 0);
        if (count <= 0) return all;
        all.append(piece, static_cast<std::size_t>(count));
    }
}

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = startServer();
    if (size == 0) return 0;
    const std::size_t cut = data[0];  // the size of all pieces; 0 for one piece
    ++data;
    --size;
    const int fd = connectTo(path);
    const std::size_t most = cut == 0 ? std::max<std::size_t>(size, 1) : cut;
    for (std::size_t sent = 0; sent < size;) {
        const ssize_t count = ::send(fd, data + sent, std::min(most, size - sent), MSG_NOSIGNAL);
        if (count <= 0) break;  // the server has hung up
        sent += static_cast<std::size_t>(count);
    }
    ::shutdown(fd, SHUT_WR);
    const std::string answer = readToEnd(fd);
    ::close(fd);
    checkResponses(answer);
    return 0;
}
