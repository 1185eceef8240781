// gRPC over a Unix socket, with the synchronous service and stubs. Each client thread has a channel of its own, with a
// connection of its own. One-way messages are a stream from the client, which the server answers at its end.

#include "Harness.h"
#include "echo.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

using echo_grpc::Body;
using echo_grpc::Echo;

void checked(const grpc::Status& status) {
    if (!status.ok()) throw std::runtime_error(status.error_message());
}

class Service final : public Echo::Service {
    grpc::Status Post(grpc::ServerContext*, const Body* request, Body* response) override {
        const std::string_view answer = bench::answerTo(request->body());
        response->set_body(answer.data(), answer.size());
        return grpc::Status::OK;
    }

    grpc::Status Batch(grpc::ServerContext*, grpc::ServerReader<Body>* reader, Body* response) override {
        for (Body message; reader->Read(&message);) {
            const std::string& body = message.body();
            if (body.front() == bench::NO_ANSWER) {
                bench::takeIn(body.data(), body.size());
            } else {
                response->set_body(std::string(bench::answerTo(body)));
            }
        }
        return grpc::Status::OK;
    }
};

class GrpcConnection : public bench::Connection {
  public:
    explicit GrpcConnection(const bench::Setup& setup) : oneWay_(setup.oneWay()) {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        stub_ = Echo::NewStub(
            grpc::CreateCustomChannel("unix:" + setup.address, grpc::InsecureChannelCredentials(), arguments));
    }

    void post(const std::string& body) override {
        if (oneWay_) {
            endBatch(body);
            return;
        }
        grpc::ClientContext context;
        message_.set_body(body);
        checked(stub_->Post(&context, message_, &response_));
        bench::checkResponse(response_.body());
    }

    void notify(const std::string& body) override {
        if (!writer_) {
            context_ = std::make_unique<grpc::ClientContext>();
            writer_ = stub_->Batch(context_.get(), &response_);
        }
        write(body);
    }

  private:
    void write(const std::string& body) {
        message_.set_body(body);
        if (!writer_->Write(message_)) throw std::runtime_error("the stream is broken");
    }

    void endBatch(const std::string& body) {
        write(body);
        writer_->WritesDone();
        checked(writer_->Finish());
        writer_.reset();
        bench::checkResponse(response_.body());
    }

    bool oneWay_;
    std::unique_ptr<Echo::Stub> stub_;
    Body message_;
    Body response_;
    std::unique_ptr<grpc::ClientContext> context_;
    std::unique_ptr<grpc::ClientWriter<Body>> writer_;
};

class Grpc : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<GrpcConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        Service service;
        grpc::ServerBuilder builder;
        builder.AddListeningPort("unix:" + setup.address, grpc::InsecureServerCredentials());
        builder.RegisterService(&service);
        const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
        if (!server) throw std::runtime_error("the server does not start");
        bench::ready();
        server->Wait();
    }
};

}  // namespace

int main(int argc, char** argv) {
    Grpc grpc;
    return bench::main(argc, argv, grpc);
}
