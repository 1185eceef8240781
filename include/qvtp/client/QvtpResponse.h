#pragma once

#include <qvtp/Export.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/message/QvtpMessageIn.h>
#include <qvtp/message/Version.h>

#include <istream>
#include <memory>
#include <string>
#include <vector>

namespace Quovane::Internal::Qvtp {
class AbstractQvtpRequestImpl;
class InputBuffer;
class QvtpMessageInImpl;
}  // namespace Quovane::Internal::Qvtp

namespace Quovane::Qvtp {

/// The server's answer to a TwoWayRequest. The caller of execute() owns it and deletes it; the request must outlive the
/// reading of its body. One thread at a time uses it.
class QVTP_API QvtpResponse : public QvtpMessageIn {
  public:
    /// Reads from a pipe's stream, which is not owned; nothing is read yet. The client gives the buffer size and must
    /// outlive the construction.
    QvtpResponse(QvtpClient* client, std::istream* in);
    QvtpResponse(const QvtpResponse&) = delete;
    QvtpResponse& operator=(const QvtpResponse&) = delete;
    ~QvtpResponse() override;

    std::string getStartLine() override;
    std::string getHeader(const std::string& name) const override;
    std::vector<std::string> getHeaders(const std::string& name) const override;
    std::vector<std::string> getHeaderNames() override;
    void getBody(char** data, size_t& size) override;
    std::istream* getBodyStream() override;

    /// The status code, 0 if it is not a number, 500 if the response cannot be read (QvPipeException).
    int getStatusCode();
    /// The text after the status code, trimmed; empty if there is none. Throws as getStartLine().
    std::string getReasonPhrase();
    /// The version of the server's protocol; the current one if the response cannot be read (QvPipeException).
    Version getQvtpVersion();

  private:
    friend class Internal::Qvtp::AbstractQvtpRequestImpl;

    QvtpResponse();
    std::shared_ptr<Internal::Qvtp::InputBuffer> bodyReader() const;

    QvtpClient* client_;  // not owned
    std::unique_ptr<Internal::Qvtp::QvtpMessageInImpl> reader_;
};

}  // namespace Quovane::Qvtp
