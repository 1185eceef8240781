#include <qvtp/message/QvtpMessageIn.h>

namespace Quovane::Qvtp {

QvtpMessageIn::QvtpMessageIn() = default;

QvtpMessageIn::~QvtpMessageIn() noexcept = default;

}  // namespace Quovane::Qvtp
