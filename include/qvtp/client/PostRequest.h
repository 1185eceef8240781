#pragma once

#include <qvtp/Export.h>
#include <qvtp/client/TwoWayRequest.h>

#include <string>

namespace Quovane::Qvtp {

/// A POST: a message to a server that is answered.
class QVTP_API PostRequest : public TwoWayRequest {
  public:
    /// `pipeName`: the server's pipe; `resource`: what the request is about, without blanks. The client is not owned
    /// and must outlive the request.
    PostRequest(QvtpClient* client, const std::string& pipeName, const std::string& resource);
    ~PostRequest() noexcept(false) override;
};

}  // namespace Quovane::Qvtp
