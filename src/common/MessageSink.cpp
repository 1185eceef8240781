#include "common/MessageSink.h"

namespace Quovane::Internal::Qvtp {

MessageSink::~MessageSink() = default;

MessageSink* MessageSink::of(std::ostream& out) {
    auto* const sink = dynamic_cast<MessageSink*>(&out);
    return sink != nullptr && out.good() && sink->isDirect() ? sink : nullptr;
}

}  // namespace Quovane::Internal::Qvtp
