// Boost.Beast: HTTP/1.1 over a Unix socket, kept alive, synchronous, a thread for each connection, bodies as strings.
// The buffer for reading has room from the start: it would otherwise stay at pieces of 512 to 1536 bytes. There is no
// one-way message in HTTP.

#include "Harness.h"

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using Socket = asio::local::stream_protocol::socket;
using Body = http::string_body;

constexpr unsigned HTTP_1_1 = 11;
constexpr std::uint64_t LARGEST_BODY = 16 << 20;
constexpr std::size_t READ_BUFFER = 64 << 10;

class BeastConnection : public bench::Connection {
  public:
    explicit BeastConnection(const bench::Setup& setup) : socket_(context_) {
        buffer_.reserve(READ_BUFFER);
        socket_.connect(asio::local::stream_protocol::endpoint(setup.address));
    }

    void post(const std::string& body) override {
        http::request<Body> request(http::verb::post, "/echo", HTTP_1_1, body);
        request.set(http::field::host, "localhost");
        request.prepare_payload();
        http::write(socket_, request);
        http::response_parser<Body> response;
        response.body_limit(LARGEST_BODY);
        http::read(socket_, buffer_, response);
        bench::checkResponse(response.get().body());
    }

  private:
    asio::io_context context_{1};
    Socket socket_;
    beast::flat_buffer buffer_;
};

void serveConnection(Socket socket) {
    beast::flat_buffer buffer;
    buffer.reserve(READ_BUFFER);
    beast::error_code error;
    while (true) {
        http::request_parser<Body> request;
        request.body_limit(LARGEST_BODY);
        http::read(socket, buffer, request, error);
        if (error) return;
        http::response<Body> response(http::status::ok, HTTP_1_1);
        const std::string_view answer = bench::answerTo(request.get().body());
        if (answer.data() == request.get().body().data()) {
            response.body() = std::move(request.get().body());
        } else {
            response.body() = answer;
        }
        response.prepare_payload();
        http::write(socket, response, error);
        if (error) return;
    }
}

class Beast : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<BeastConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        asio::io_context context(1);
        asio::local::stream_protocol::acceptor acceptor(context, asio::local::stream_protocol::endpoint(setup.address));
        bench::ready();
        while (true) std::thread(serveConnection, acceptor.accept()).detach();
    }
};

}  // namespace

int main(int argc, char** argv) {
    Beast beast;
    return bench::main(argc, argv, beast);
}
