#include <qvtp/message/QvtpMessageIn.h>

namespace Quovane::Qvtp {

QvtpMessageIn::QvtpMessageIn() = default;

QvtpMessageIn::~QvtpMessageIn() = default;

}  // namespace Quovane::Qvtp
