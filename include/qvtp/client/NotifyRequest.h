#pragma once

#include <qvtp/Export.h>
#include <qvtp/client/OneWayRequest.h>

#include <string>

namespace Quovane::Qvtp {

/// A NOTIFY: a message to a server that is not answered.
class QVTP_API NotifyRequest : public OneWayRequest {
  public:
    /// `pipeName`: the server's pipe; `resource`: what the request is about, without blanks. The client is not owned
    /// and must outlive the request.
    NotifyRequest(QvtpClient* client, const std::string& pipeName, const std::string& resource);
    ~NotifyRequest() noexcept(false) override;
};

}  // namespace Quovane::Qvtp
