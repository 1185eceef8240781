#include <qvtp/client/PostRequest.h>

namespace Quovane::Qvtp {

PostRequest::PostRequest(QvtpClient* client, const std::string& pipeName, const std::string& resource)
    : TwoWayRequest(METHOD_POST, resource, client, pipeName) {}

PostRequest::~PostRequest() noexcept(false) = default;

}  // namespace Quovane::Qvtp
