#include "message/QvtpHeaderWriter.h"

namespace Quovane::Internal::Qvtp {

QvtpHeaderWriter::~QvtpHeaderWriter() = default;

}  // namespace Quovane::Internal::Qvtp
