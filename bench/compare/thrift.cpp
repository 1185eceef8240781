// Apache Thrift: the binary protocol over a Unix socket, a thread for each connection, with the buffered transport
// ("thrift-buffered") or the framed one ("thrift-framed"). The buffers have 64 KiB, since those of the default, 512
// bytes, would be the size of each read. The limit of a message's size is raised, since this version applies it to all
// messages of a connection together.

#include "Echo.h"
#include "Harness.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>

#include <limits>
#include <memory>
#include <string>
#include <utility>

namespace {

using namespace apache::thrift;

constexpr std::uint32_t BUFFER = 64 << 10;

class Handler : public echo_thrift::EchoIf {
  public:
    void post(std::string& answer, const std::string& body) override { answer = bench::answerTo(body); }
    void notify(const std::string& body) override { bench::takeIn(body.data(), body.size()); }
};

std::shared_ptr<transport::TTransport> transportOn(const std::shared_ptr<transport::TTransport>& socket,
                                                   const std::string& variant) {
    const auto configuration = std::make_shared<TConfiguration>(std::numeric_limits<int>::max());
    if (variant == "thrift-framed") return std::make_shared<transport::TFramedTransport>(socket, configuration);
    return std::make_shared<transport::TBufferedTransport>(socket, BUFFER, configuration);
}

class Transports : public transport::TTransportFactory {
  public:
    explicit Transports(std::string variant) : variant_(std::move(variant)) {}
    std::shared_ptr<transport::TTransport> getTransport(std::shared_ptr<transport::TTransport> socket) override {
        return transportOn(socket, variant_);
    }

  private:
    std::string variant_;
};

class ThriftConnection : public bench::Connection {
  public:
    explicit ThriftConnection(const bench::Setup& setup) {
        const auto transport = transportOn(std::make_shared<transport::TSocket>(setup.address), setup.variant);
        transport->open();
        client_ = std::make_unique<echo_thrift::EchoClient>(std::make_shared<protocol::TBinaryProtocol>(transport));
    }

    void post(const std::string& body) override {
        client_->post(response_, body);
        bench::checkResponse(response_);
    }
    void notify(const std::string& body) override { client_->notify(body); }

  private:
    std::unique_ptr<echo_thrift::EchoClient> client_;
    std::string response_;
};

class Ready : public server::TServerEventHandler {
    void preServe() override { bench::ready(); }
};

class Thrift : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<ThriftConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        server::TThreadedServer server(std::make_shared<echo_thrift::EchoProcessor>(std::make_shared<Handler>()),
                                       std::make_shared<transport::TServerSocket>(setup.address),
                                       std::make_shared<Transports>(setup.variant),
                                       std::make_shared<protocol::TBinaryProtocolFactory>());
        server.setServerEventHandler(std::make_shared<Ready>());
        server.serve();
    }
};

}  // namespace

int main(int argc, char** argv) {
    GlobalOutput.setOutputFunction([](const char*) {});  // a client that has gone is no news
    Thrift thrift;
    return bench::main(argc, argv, thrift);
}
