#include "common/MessageSink.h"

namespace Quovane::Internal::Qvtp {

MessageSink::~MessageSink() = default;

}  // namespace Quovane::Internal::Qvtp
