// nng over ipc, with messages that are handed over without copying where that is possible. Requests go from a req
// socket to a rep socket, served by up to four contexts, each on a thread. One-way messages go over a pair, so that the
// last one can be answered.

#include "Harness.h"

#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

constexpr int CONTEXTS = 4;
constexpr std::size_t LARGEST_MESSAGE = 16 << 20;

void checked(int result, const char* what) {
    if (result != 0) throw std::runtime_error(std::string(what) + ": " + nng_strerror(result));
}

struct Free {
    void operator()(nng_msg* message) const { nng_msg_free(message); }
};
using Message = std::unique_ptr<nng_msg, Free>;

Message messageOf(std::string_view bytes) {
    nng_msg* message = nullptr;
    checked(nng_msg_alloc(&message, bytes.size()), "nng_msg_alloc");
    std::copy(bytes.begin(), bytes.end(), static_cast<char*>(nng_msg_body(message)));
    return Message(message);
}

std::string_view bytesOf(const Message& message) {
    return {static_cast<const char*>(nng_msg_body(message.get())), nng_msg_len(message.get())};
}

void send(nng_socket socket, Message message) {
    checked(nng_sendmsg(socket, message.get(), 0), "nng_sendmsg");
    (void)message.release();
}

Message receive(nng_socket socket) {
    nng_msg* message = nullptr;
    checked(nng_recvmsg(socket, &message, 0), "nng_recvmsg");
    return Message(message);
}

class NngConnection : public bench::Connection {
  public:
    explicit NngConnection(const bench::Setup& setup) {
        checked(setup.oneWay() ? nng_pair0_open(&socket_) : nng_req0_open(&socket_), "open");
        checked(nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, LARGEST_MESSAGE), "NNG_OPT_RECVMAXSZ");
        checked(nng_dial(socket_, ("ipc://" + setup.address).c_str(), nullptr, 0), "nng_dial");
    }
    ~NngConnection() override { nng_close(socket_); }

    void post(const std::string& body) override {
        send(socket_, messageOf(body));
        bench::checkResponse(bytesOf(receive(socket_)));
    }
    void notify(const std::string& body) override { send(socket_, messageOf(body)); }

  private:
    nng_socket socket_{};
};

Message answerTo(Message request) {
    const std::string_view bytes = bytesOf(request);
    const std::string_view answer = bench::answerTo(bytes);
    return answer.data() == bytes.data() ? std::move(request) : messageOf(answer);
}

void serveOneWay(nng_socket socket) {
    while (true) {
        Message message = receive(socket);
        const std::string_view bytes = bytesOf(message);
        if (bytes.front() == bench::NO_ANSWER) {
            bench::takeIn(bytes.data(), bytes.size());
        } else {
            send(socket, answerTo(std::move(message)));
        }
    }
}

void serveRequests(nng_socket socket) {
    while (true) send(socket, answerTo(receive(socket)));
}

/// Answers one client at a time, as each context does.
void serveContext(nng_socket socket) {
    nng_ctx context{};
    checked(nng_ctx_open(&context, socket), "nng_ctx_open");
    nng_aio* aio = nullptr;
    checked(nng_aio_alloc(&aio, nullptr, nullptr), "nng_aio_alloc");
    while (true) {
        nng_ctx_recv(context, aio);
        nng_aio_wait(aio);
        checked(nng_aio_result(aio), "nng_ctx_recv");
        nng_aio_set_msg(aio, answerTo(Message(nng_aio_get_msg(aio))).release());
        nng_ctx_send(context, aio);
        nng_aio_wait(aio);
        if (nng_aio_result(aio) != 0) nng_msg_free(nng_aio_get_msg(aio));  // the client has gone
    }
}

class Nng : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<NngConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        nng_socket socket{};
        checked(setup.oneWay() ? nng_pair0_open(&socket) : nng_rep0_open(&socket), "open");
        checked(nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, LARGEST_MESSAGE), "NNG_OPT_RECVMAXSZ");
        checked(nng_listen(socket, ("ipc://" + setup.address).c_str(), nullptr, 0), "nng_listen");
        bench::ready();
        if (setup.oneWay()) serveOneWay(socket);
        if (setup.clients == 1) serveRequests(socket);
        for (int i = 0; i < std::min(CONTEXTS, setup.clients); ++i) std::thread(serveContext, socket).detach();
    }
};

}  // namespace

int main(int argc, char** argv) {
    Nng nng;
    return bench::main(argc, argv, nng);
}
