#include "message/HeaderMemory.h"

namespace Quovane::Internal::Qvtp {

/// Apart from the usual way, which is in many places of the code.
void* HeaderMemory::takeMore(std::size_t size) {
    if (!more_) more_.emplace(std::pmr::new_delete_resource());
    return more_->allocate(size, ALIGNMENT);
}

}  // namespace Quovane::Internal::Qvtp
