// Cap'n Proto RPC over a Unix socket. Its event loop serves all connections on one thread; each client thread has a
// loop of its own. One-way messages are calls that stream.

#include "Harness.h"
#include "echo.capnp.h"

#include <capnp/rpc-twoparty.h>
#include <kj/async-io.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

using echo_capnp::Echo;

capnp::Data::Reader dataOf(std::string_view bytes) {
    return {reinterpret_cast<const kj::byte*>(bytes.data()), bytes.size()};
}

std::string_view bytesOf(capnp::Data::Reader data) {
    return {reinterpret_cast<const char*>(data.begin()), data.size()};
}

class EchoImpl final : public Echo::Server {
  public:
    kj::Promise<void> post(PostContext context) override {
        const std::string_view answer = bench::answerTo(bytesOf(context.getParams().getBody()));
        context.getResults().setBody(dataOf(answer));
        return kj::READY_NOW;
    }

    kj::Promise<void> notify(NotifyContext context) override {
        const std::string_view body = bytesOf(context.getParams().getBody());
        bench::takeIn(body.data(), body.size());
        return kj::READY_NOW;
    }
};

/// The loop of this thread.
kj::AsyncIoContext& loop() {
    thread_local kj::AsyncIoContext context = kj::setupAsyncIo();
    return context;
}

kj::Own<kj::NetworkAddress> addressOf(const bench::Setup& setup) {
    return loop().provider->getNetwork().parseAddress(("unix:" + setup.address).c_str()).wait(loop().waitScope);
}

class CapnpConnection : public bench::Connection {
  public:
    explicit CapnpConnection(const bench::Setup& setup)
        : stream_(addressOf(setup)->connect().wait(loop().waitScope)),
          client_(*stream_),
          echo_(client_.bootstrap().castAs<Echo>()) {}
    ~CapnpConnection() noexcept override {}  // those of the members may throw, and end the program then

    void post(const std::string& body) override {
        auto request = echo_.postRequest(capnp::MessageSize{body.size() / sizeof(capnp::word) + 16, 0});
        request.setBody(dataOf(body));
        const auto response = request.send().wait(loop().waitScope);
        bench::checkResponse(bytesOf(response.getBody()));
    }

    void notify(const std::string& body) override {
        auto request = echo_.notifyRequest();
        request.setBody(dataOf(body));
        request.send().wait(loop().waitScope);  // until there is room for another, not until it has arrived
    }

  private:
    kj::Own<kj::AsyncIoStream> stream_;
    capnp::TwoPartyClient client_;
    Echo::Client echo_;
};

class CapnProto : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<CapnpConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        capnp::TwoPartyServer server(kj::heap<EchoImpl>());
        auto listener = addressOf(setup)->listen();
        bench::ready();
        server.listen(*listener).wait(loop().waitScope);
    }
};

}  // namespace

int main(int argc, char** argv) {
    CapnProto capnproto;
    return bench::main(argc, argv, capnproto);
}
