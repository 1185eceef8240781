// The yardstick: a blocking stream socket, sizes known to both sides, one send and one receive a side for a message
// that fits into the socket.

#include "Harness.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

class Socket {
  public:
    explicit Socket(int fd) : fd_(fd) {
        if (fd < 0) fail("socket");
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { ::close(fd_); }

    int fd() const { return fd_; }

    bool send(const char* data, std::size_t size) const {
        while (size > 0) {
            const ssize_t sent = ::send(fd_, data, size, MSG_NOSIGNAL);
            if (sent <= 0) return false;
            data += sent;
            size -= static_cast<std::size_t>(sent);
        }
        return true;
    }

    bool receive(char* data, std::size_t size) const {
        return ::recv(fd_, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

  private:
    int fd_;
};

class RawConnection : public bench::Connection {
  public:
    explicit RawConnection(const bench::Setup& setup)
        : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), response_(setup.responseSize) {
        const sockaddr_un address = addressOf(setup.address);
        if (::connect(socket_.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("connect");
    }

    void post(const std::string& body) override {
        if (!socket_.send(body.data(), body.size())) fail("send");
        if (!socket_.receive(response_.data(), response_.size())) fail("recv");
        bench::checkResponse(response_.data(), response_.size());
    }

    void notify(const std::string& body) override {
        if (!socket_.send(body.data(), body.size())) fail("send");
    }

  private:
    Socket socket_;
    std::vector<char> response_;
};

void serveConnection(int fd, std::size_t requestSize) {
    const Socket socket(fd);
    std::vector<char> request(requestSize);
    while (socket.receive(request.data(), request.size())) {
        if (request.front() == bench::NO_ANSWER) {
            bench::takeIn(request.data(), request.size());
            continue;
        }
        const std::string_view answer = bench::answerTo(request.data(), request.size());
        if (!socket.send(answer.data(), answer.size())) return;
    }
}

class Raw : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<RawConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        const Socket listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = addressOf(setup.address);
        if (::bind(listener.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
        if (::listen(listener.fd(), 128) != 0) fail("listen");
        bench::ready();
        while (true) {
            const int fd = ::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) fail("accept");
            std::thread(serveConnection, fd, setup.requestSize).detach();
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    Raw raw;
    return bench::main(argc, argv, raw);
}
