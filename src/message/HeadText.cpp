#include "message/HeadText.h"

namespace Quovane::Internal::Qvtp {

HeadText& HeadText::appendLong(std::string_view piece) {
    if (long_.empty()) {
        long_.reserve(2 * (length_ + piece.size()));
        long_.assign(usual_, length_);
    }
    long_ += piece;
    length_ = sizeof usual_;  // from now on every piece comes here
    return *this;
}

}  // namespace Quovane::Internal::Qvtp
