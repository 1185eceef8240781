#pragma once

#include <qvtp/client/AbstractQvtpRequest.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/io/BrokenPipeException.h>
#include <qvtp/io/QvPipe.h>

#include "common/Utf8String.h"
#include "message/InputBuffer.h"
#include "message/QvtpMessageOutImpl.h"
#include "message/QvtpOStream.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

namespace Quovane::Qvtp {
class QvtpResponse;
}

namespace Quovane::Internal::Qvtp {

/// What both kinds of request do: takes a pipe, writes the message on it, sends it again on another pipe when
/// the first one turns out to be broken, and gives the pipe back at a message boundary.
class AbstractQvtpRequestImpl : public Quovane::Qvtp::AbstractQvtpRequest {
  public:
    using QvtpClient = Quovane::Qvtp::QvtpClient;
    using QvtpResponse = Quovane::Qvtp::QvtpResponse;

    // Modes as the connection manager has them.
    static const std::string ONE_WAY;
    static const std::string TWO_WAY;

    /// `mode`: one of those above, which it refers to. The client is not owned.
    AbstractQvtpRequestImpl(const std::string& method, const std::string& resource, QvtpClient* client,
                            const std::string& pipeName, const std::string& mode);
    /// Lets an exception of returnPipe() out, unless another one is on its way already.
    ~AbstractQvtpRequestImpl() noexcept(false) override;

    std::string getStartLine() override;
    void addHeader(const std::string& name, const std::string& value) override;
    void setHeader(const std::string& name, const std::string& value) override;
    void removeHeader(const std::string& name) override;
    void setBody(const char* data, size_t size) override;
    bool isCommitted() const override;
    std::string getMethod() const override;
    void setResource(const std::string& resource) override;
    std::string getResource() const override;
    void setBodyStream(std::istream* stream) override;

    /// Sends the request. A request that is answered yields a response of which nothing has been read.
    std::unique_ptr<QvtpResponse> execute();
    /// Reads the head of the response.
    std::unique_ptr<QvtpResponse> receive(std::unique_ptr<QvtpResponse> response);

  private:
    void checkBodySource() const;
    void checkBodyPresent() const;
    std::unique_ptr<QvtpResponse> attempt();
    void prepare();
    void sendThroughStream();
    std::unique_ptr<QvtpResponse> beginResponse();
    void copyBodyStream(QvtpOStream& bodyOut);
    void handleBrokenPipe(Quovane::Io::BrokenPipeException& e);
    void dropPipe();
    void releasePipe();
    bool finishResponse();
    bool nothingIsLeft() const;
    bool isAnswered() const { return &mode_ == &TWO_WAY; }

    Quovane::Io::QvPipe* pipe_ = nullptr;  // not owned: the manager's
    QvtpClient* client_;                   // not owned
    std::string pipeName_;
    std::string method_;
    std::string resource_;
    const std::string& mode_;
    std::istream* bodyStream_ = nullptr;  // not owned
    Quovane::Soa::Common::Xml::Utf8String encoder_;
    QvtpMessageOutImpl message_;
    std::shared_ptr<InputBuffer> responseBody_;  // shared with the response, which may be gone
    bool announcesBody_ = false;     // otherwise the server takes up the next request elsewhere than it begins
    bool responseTimed_ = false;     // pipe_ has the client's time-out for the response
    bool exchangeComplete_ = false;  // nothing failed: the pipe may be used again after the response
    int pipeTimeoutMs_ = 0;          // what pipe_ had before that of the response
    std::uint32_t processId_ = 0;    // in which pipe_ was taken
    const int exceptionsBefore_ = std::uncaught_exceptions();  // of which none makes the destructor keep quiet
};

}  // namespace Quovane::Internal::Qvtp
