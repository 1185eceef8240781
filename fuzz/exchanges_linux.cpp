// Several exchanges of one client, with its pool, and a peer that answers each with whatever bytes. What of them
// belongs to no response never becomes the next request's: in each answer there are bytes that say which request it is
// for.

#include <qvtp/client/NotifyRequest.h>
#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>
#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/QvPipeException.h>

#include "examples/BodyOf.h"
#include "fuzz/Waits_linux.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Quovane::Qvtp;

constexpr std::size_t MOST = 5;              // exchanges
constexpr long long LARGEST_BODY = 1 << 20;  // a larger one is not read as a block
constexpr int TIMEOUT_MS = 5;
constexpr char FIRST_MARK = 0x10;  // and the seven after it; they come through every conversion of texts as they are

void require(bool condition) {
    if (!condition) std::abort();
}

/// One exchange: how the client does it, and what the peer answers.
struct Exchange {
    bool isNotify() const { return (form & 3) == 3; }
    bool hangsUp() const { return (form & 4) != 0; }  // after the answer
    int reading() const { return form >> 3 & 3; }

    unsigned form = 0;
    std::string answer;
};

/// The input is cut at bytes of 255; the first of a part is its form. Bytes in the place of marks become the part's
/// own.
std::vector<Exchange> exchangesOf(const std::uint8_t* data, std::size_t size) {
    std::vector<Exchange> all;
    const std::uint8_t* const end = data + size;
    while (data < end && all.size() < MOST) {
        Exchange one;
        one.form = *data++;
        const std::uint8_t* const cut = std::find(data, end, std::uint8_t{255});
        one.answer.assign(data, cut);
        for (char& c : one.answer) {
            if ((static_cast<unsigned char>(c) & 0xF8U) == 0x10U) c = static_cast<char>(FIRST_MARK + all.size());
        }
        all.push_back(one);
        data = cut == end ? end : cut + 1;
    }
    return all;
}

/// Whether a text of an answer has no other mark than that of this exchange.
bool isOf(std::size_t number, const std::string& text) {
    return std::all_of(text.begin(), text.end(), [&](char c) {
        return (static_cast<unsigned char>(c) & 0xF8U) != 0x10U || c == static_cast<char>(FIRST_MARK + number);
    });
}

/// A server of sockets, without the protocol. It sends each answer in one piece, when its client waits for something
/// or has ended an exchange: what it sent later would reach the client at any time.
class Peer : public Waits::Peer {
  public:
    Peer() {
        ::setenv("QVTP_PIPE_DIR", "/tmp/qvtp-fuzz-pipes", 0);  // scripts/fuzz has one that it removes
        ::setenv("QVTP_SPIN", "0", 0);                         // nothing comes while the only thread tries
        const std::string directory = std::getenv("QVTP_PIPE_DIR");
        ::mkdir(directory.c_str(), S_IRWXU);
        const std::string path = directory + "/" + name + ".sock";
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        require(path.size() < sizeof address.sun_path);
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        require(::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
        require(::listen(listener_, 16) == 0);
    }

    void begin(const std::vector<Exchange>& exchanges) { exchanges_ = &exchanges; }

    /// The clients have gone.
    void end() {
        act();
        require(connections_.empty());
        exchanges_ = nullptr;
    }

    bool act() override {
        bool hasActed = false;
        for (int fd = acceptOne(); fd >= 0; fd = acceptOne()) {
            connections_.push_back({fd, ""});
            hasActed = true;
        }
        for (auto one = connections_.begin(); one != connections_.end();) {
            const Step step = serve(*one);
            hasActed = hasActed || step != Step::NOTHING;
            if (step == Step::END) ::close(one->fd);
            one = step == Step::END ? connections_.erase(one) : std::next(one);
        }
        return hasActed;
    }

    const std::string name = "exchanges-" + std::to_string(::getpid());

  private:
    enum class Step { NOTHING, ANSWER, END };
    struct Connection {
        int fd;
        std::string request;  // what has come of it
    };

    int acceptOne() const { return ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); }

    Step serve(Connection& one) const {
        char piece[4096];
        const ssize_t count = ::recv(one.fd, piece, sizeof piece, MSG_DONTWAIT);
        if (count < 0 && errno == EAGAIN) return Step::NOTHING;
        if (count <= 0) return Step::END;
        one.request.append(piece, static_cast<std::size_t>(count));
        return answer(one);
    }

    /// A request is "POST /3 QVTP/1.0", headers, and the body "B".
    Step answer(Connection& one) const {
        if (one.request.size() < 5 || one.request.compare(one.request.size() - 5, 5, "\r\n\r\nB") != 0) {
            return Step::ANSWER;  // the rest is still to come
        }
        const std::size_t number = std::strtoull(one.request.c_str() + one.request.find('/') + 1, nullptr, 10);
        one.request.clear();
        require(number < exchanges_->size());
        const Exchange& exchange = (*exchanges_)[number];
        ::send(one.fd, exchange.answer.data(), exchange.answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return exchange.hangsUp() ? Step::END : Step::ANSWER;
    }

    int listener_ = -1;
    std::vector<Connection> connections_;
    const std::vector<Exchange>* exchanges_ = nullptr;  // not owned
};

void checkResponse(std::size_t number, const Exchange& exchange, QvtpResponse& response) {
    require(isOf(number, response.getStartLine()));
    for (const std::string& header : response.getHeaderNames()) {
        require(isOf(number, header));
        for (const std::string& value : response.getHeaders(header)) require(isOf(number, value));
    }
    const std::string length = response.getHeader(QvtpMessage::HEADER_CONTENT_LENGTH);
    if (exchange.reading() == 0 && std::strtoll(length.c_str(), nullptr, 10) < LARGEST_BODY) {
        require(isOf(number, example::bodyOf(response)));
    } else if (exchange.reading() != 1) {  // a part
        char part[8] = {};
        response.getBodyStream()->read(part, exchange.reading() == 2 ? 1 : sizeof part);
        require(isOf(number, std::string(part, sizeof part)));
    }
}

void perform(QvtpClient& client, const std::string& name, std::size_t number, const Exchange& exchange) {
    const std::string resource = "/" + std::to_string(number);
    if (exchange.isNotify()) {
        NotifyRequest request(&client, name, resource);
        request.setBody("B", 1);
        request.execute();
        return;
    }
    PostRequest request(&client, name, resource);
    request.setBody("B", 1);
    const std::unique_ptr<QvtpResponse> response(request.execute());
    checkResponse(number, exchange, *response);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Peer peer;
    const std::vector<Exchange> exchanges = exchangesOf(data, size);
    peer.begin(exchanges);
    Waits::setPeer(&peer);
    {
        QvtpClient client;
        client.setResponseTimeout(TIMEOUT_MS);
        for (std::size_t i = 0; i < exchanges.size(); ++i) {
            try {
                perform(client, peer.name, i, exchanges[i]);
            } catch (Quovane::Io::QvPipeException&) {
            } catch (const Quovane::Io::IllegalStateException&) {  // the peer hung up
            } catch (const std::ios_base::failure&) {              // a stream after its exception
            }
            peer.act();
        }
    }
    peer.end();
    return 0;
}
