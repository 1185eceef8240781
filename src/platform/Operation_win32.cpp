#include "platform/Operation_win32.h"

#include <windows.h>

namespace Quovane::Internal::Qvtp {

Operation::Operation(void* event, std::size_t size) : record_(new OVERLAPPED{}), data_(new char[size]), size_(size) {
    record_->hEvent = event;
}

Operation::~Operation() = default;

bool Operation::isPending() const {
    return !HasOverlappedIoCompleted(record_);
}

}  // namespace Quovane::Internal::Qvtp
