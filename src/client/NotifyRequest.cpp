#include <qvtp/client/NotifyRequest.h>

namespace Quovane::Qvtp {

NotifyRequest::NotifyRequest(QvtpClient* client, const std::string& pipeName, const std::string& resource)
    : OneWayRequest(METHOD_NOTIFY, resource, client, pipeName) {}

NotifyRequest::~NotifyRequest() noexcept(false) = default;

}  // namespace Quovane::Qvtp
