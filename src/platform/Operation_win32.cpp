#include "platform/Operation_win32.h"

namespace Quovane::Internal::Qvtp {

Operation::Operation(HANDLE event, std::size_t size) : record_(new OVERLAPPED{}), data_(new char[size]), size_(size) {
    record_->hEvent = event;
}

bool Operation::isPending() const {
    return !HasOverlappedIoCompleted(record_);
}

}  // namespace Quovane::Internal::Qvtp
