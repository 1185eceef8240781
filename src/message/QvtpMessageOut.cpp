#include <qvtp/message/QvtpMessageOut.h>

namespace Quovane::Qvtp {

QvtpMessageOut::QvtpMessageOut() = default;

QvtpMessageOut::~QvtpMessageOut() noexcept(false) = default;

}  // namespace Quovane::Qvtp
