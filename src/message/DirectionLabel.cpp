#include "message/DirectionLabel.h"

namespace Quovane::Internal::Qvtp::DirectionLabel {

const std::string ACCEPT = "Accept:  ";
const std::string RECEIVE = "Receive: ";
const std::string REPLY = "Reply:   ";
const std::string SEND = "Send:    ";

}  // namespace Quovane::Internal::Qvtp::DirectionLabel
