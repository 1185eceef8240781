#pragma once

#include <string>

/// What begins the log line of a message's start line: the kind of the message, nine characters each, so that the
/// start lines stand below each other.
namespace Quovane::Internal::Qvtp::DirectionLabel {

extern const std::string ACCEPT;   ///< a request that the server reads
extern const std::string RECEIVE;  ///< a response that the client reads
extern const std::string REPLY;    ///< a response that the server writes
extern const std::string SEND;     ///< a request that the client writes

}  // namespace Quovane::Internal::Qvtp::DirectionLabel
