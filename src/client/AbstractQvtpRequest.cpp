#include <qvtp/client/AbstractQvtpRequest.h>

namespace Quovane::Qvtp {

AbstractQvtpRequest::AbstractQvtpRequest() = default;

AbstractQvtpRequest::~AbstractQvtpRequest() noexcept(false) = default;

}  // namespace Quovane::Qvtp
