// cpp-httplib: HTTP/1.1 over a Unix socket, kept alive, with a worker for each connection. There is no one-way message
// in HTTP.

#include "Harness.h"

#include <httplib.h>

#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

constexpr int ANY_PORT = 80;  // a Unix socket has none, but the interface asks for one
constexpr char TYPE[] = "application/octet-stream";

class HttpConnection : public bench::Connection {
  public:
    explicit HttpConnection(const bench::Setup& setup) : client_(setup.address, ANY_PORT) {
        client_.set_address_family(AF_UNIX);
        client_.set_default_headers({{"Host", "localhost"}});
        client_.set_keep_alive(true);
    }

    void post(const std::string& body) override {
        httplib::Result result = client_.Post("/echo", body.data(), body.size(), TYPE);
        // The server's queue of new connections is short, and the client does not wait for a place in it.
        for (; result.error() == httplib::Error::Connection && !connected_; std::this_thread::yield()) {
            result = client_.Post("/echo", body.data(), body.size(), TYPE);
        }
        connected_ = true;
        if (!result) throw std::runtime_error(httplib::to_string(result.error()));
        bench::checkResponse(result->body);
    }

  private:
    httplib::Client client_;
    bool connected_ = false;
};

class Httplib : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<HttpConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        httplib::Server server;
        server.set_address_family(AF_UNIX);
        server.set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
        const auto workers = static_cast<std::size_t>(setup.clients + 4);
        server.new_task_queue = [workers] { return new httplib::ThreadPool(workers); };
        server.Post("/echo", [](const httplib::Request& request, httplib::Response& response) {
            const std::string_view answer = bench::answerTo(request.body);
            response.set_content(answer.data(), answer.size(), TYPE);
        });
        if (!server.bind_to_port(setup.address, ANY_PORT)) throw std::runtime_error("bind_to_port");
        bench::ready();
        server.listen_after_bind();
    }
};

}  // namespace

int main(int argc, char** argv) {
    Httplib httplib;
    return bench::main(argc, argv, httplib);
}
