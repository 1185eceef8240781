#include "message/DirectionLabel.h"

#include "common/Early.h"

namespace Quovane::Internal::Qvtp::DirectionLabel {

QVTP_EARLY const std::string ACCEPT = "Accept:  ";
QVTP_EARLY const std::string RECEIVE = "Receive: ";
QVTP_EARLY const std::string REPLY = "Reply:   ";
QVTP_EARLY const std::string SEND = "Send:    ";

}  // namespace Quovane::Internal::Qvtp::DirectionLabel
