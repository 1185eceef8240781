// This library: at its defaults as "qvtp", with BUFFER_SIZE 65536 on both sides as "qvtp-64k". Each thread has a client
// of its own, as it has with the other contenders, and so a connection of its own.

#include "Harness.h"
#include "examples/common.h"

#include <memory>
#include <string>
#include <thread>

using namespace Quovane::Qvtp;

namespace {

constexpr int LARGE_BUFFER = 65536;

/// Whole bodies are handed out as arrays that are their caller's.
template <typename Message>
class Body {
  public:
    explicit Body(Message& message) {
        char* data = nullptr;
        message.getBody(&data, size_);
        data_.reset(data);
    }

    std::string_view view() const { return {data_.get(), size_}; }

  private:
    std::unique_ptr<char[]> data_;
    std::size_t size_ = 0;
};

/// The name of a pipe has no slashes; where it lies is in the environment.
std::string pipeOf(const bench::Setup& setup) {
    return setup.address.substr(setup.address.rfind('/') + 1);
}

class QvtpConnection : public bench::Connection {
  public:
    explicit QvtpConnection(const bench::Setup& setup) : pipe_(pipeOf(setup)) {
        if (setup.variant == "qvtp-64k") client_.setOption(QvtpClient::BUFFER_SIZE, LARGE_BUFFER);
    }

    void post(const std::string& body) override {
        PostRequest request(&client_, pipe_, "/echo");
        request.setBody(body.data(), body.size());
        const std::unique_ptr<QvtpResponse> response(request.execute());
        bench::checkResponse(Body<QvtpResponse>(*response).view());
    }

    void notify(const std::string& body) override {
        NotifyRequest request(&client_, pipe_, "/echo");
        request.setBody(body.data(), body.size());
        request.execute();
    }

  private:
    std::string pipe_;
    QvtpClient client_;
};

class Handler : public QvtpHandler {
    void handleNotify(QvtpServerRequest* request) override {
        const Body<QvtpServerRequest> body(*request);
        bench::takeIn(body.view().data(), body.view().size());
    }

    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        const Body<QvtpServerRequest> body(*request);
        const std::string_view answer = bench::answerTo(body.view());
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(answer.data(), answer.size());
        response->send();
    }
};

class Qvtp : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<QvtpConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        Handler handler;
        QvtpServer server(pipeOf(setup), 1);
        server.setHandler(&handler);
        server.setOption(QvtpServer::MAX_REQUEST_PROCESSORS, setup.clients + 4);
        if (setup.variant == "qvtp-64k") server.setOption(QvtpServer::BUFFER_SIZE, LARGE_BUFFER);
        std::thread([&server] {
            while (!server.isRunning()) std::this_thread::yield();
            bench::ready();
        }).detach();
        server.run();
    }
};

}  // namespace

int main(int argc, char** argv) {
    int status = 1;
    const int outcome = example::run([&] {
        Qvtp qvtp;
        status = bench::main(argc, argv, qvtp);
    });
    return outcome != 0 ? outcome : status;
}
