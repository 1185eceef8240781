// ZeroMQ over ipc. Requests go from a REQ socket to the server's REP socket, which serves all clients in turn. One-way
// messages go from a DEALER to a ROUTER, so that the last one can be answered.

#include "Harness.h"

#include <zmq.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

int checked(int result, const char* what) {
    if (result < 0) throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
    return result;
}

struct Close {
    void operator()(void* socket) const { zmq_close(socket); }
};
using Socket = std::unique_ptr<void, Close>;

Socket newSocket(int type) {
    static void* const context = zmq_ctx_new();  // one for each process, as it is meant to be used
    Socket socket(zmq_socket(context, type));
    if (!socket) throw std::runtime_error("zmq_socket");
    const int noLinger = 0;
    checked(zmq_setsockopt(socket.get(), ZMQ_LINGER, &noLinger, sizeof noLinger), "ZMQ_LINGER");
    const int unlimited = 0;
    checked(zmq_setsockopt(socket.get(), ZMQ_RCVHWM, &unlimited, sizeof unlimited), "ZMQ_RCVHWM");
    return socket;
}

class Message {
  public:
    Message() { zmq_msg_init(&message_); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() { zmq_msg_close(&message_); }

    void receive(void* socket) { checked(zmq_msg_recv(&message_, socket, 0), "zmq_msg_recv"); }
    /// Gives the message away.
    void send(void* socket, int flags) { checked(zmq_msg_send(&message_, socket, flags), "zmq_msg_send"); }
    const char* data() { return static_cast<const char*>(zmq_msg_data(&message_)); }
    std::size_t size() const { return zmq_msg_size(&message_); }

  private:
    zmq_msg_t message_;
};

void send(void* socket, std::string_view bytes) {
    checked(zmq_send(socket, bytes.data(), bytes.size(), 0), "zmq_send");
}

class ZmqConnection : public bench::Connection {
  public:
    explicit ZmqConnection(const bench::Setup& setup) : socket_(newSocket(setup.oneWay() ? ZMQ_DEALER : ZMQ_REQ)) {
        checked(zmq_connect(socket_.get(), ("ipc://" + setup.address).c_str()), "zmq_connect");
    }

    void post(const std::string& body) override {
        send(socket_.get(), body);
        Message response;
        response.receive(socket_.get());
        bench::checkResponse(response.data(), response.size());
    }
    void notify(const std::string& body) override { send(socket_.get(), body); }

  private:
    Socket socket_;
};

void answer(void* socket, Message& request) {
    const std::string_view answer = bench::answerTo(request.data(), request.size());
    if (answer.data() == request.data()) {
        request.send(socket, 0);
    } else {
        send(socket, answer);
    }
}

void serveOneWay(void* socket) {
    while (true) {
        Message sender;
        sender.receive(socket);
        Message message;
        message.receive(socket);
        if (message.data()[0] == bench::NO_ANSWER) {
            bench::takeIn(message.data(), message.size());
        } else {
            sender.send(socket, ZMQ_SNDMORE);
            answer(socket, message);
        }
    }
}

void serveRequests(void* socket) {
    while (true) {
        Message request;
        request.receive(socket);
        answer(socket, request);
    }
}

class ZeroMq : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<ZmqConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        const Socket socket = newSocket(setup.oneWay() ? ZMQ_ROUTER : ZMQ_REP);
        checked(zmq_bind(socket.get(), ("ipc://" + setup.address).c_str()), "zmq_bind");
        bench::ready();
        setup.oneWay() ? serveOneWay(socket.get()) : serveRequests(socket.get());
    }
};

}  // namespace

int main(int argc, char** argv) {
    ZeroMq zmq;
    return bench::main(argc, argv, zmq);
}
