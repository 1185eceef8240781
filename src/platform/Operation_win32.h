#pragma once

#include <windows.h>

#include <cstddef>
#include <memory>

namespace Quovane::Internal::Qvtp {

/// One overlapped call. The system writes into its record, and a read's data, until the call has completed, which can
/// be long after the routine that began it has returned. Both live here, never on a stack or in the caller's memory.
class Operation {
  public:
    /// `event` is signalled by the completion; `size` bytes for the data of a read or a write.
    Operation(HANDLE event, std::size_t size);
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    OVERLAPPED* record() const { return record_.get(); }
    char* data() const { return data_.get(); }
    std::size_t size() const { return size_; }

    /// Only for a call that was reported as pending: the system leaves the record of one that failed at once as it was.
    bool isPending() const;

  private:
    const std::unique_ptr<OVERLAPPED> record_;
    const std::unique_ptr<char[]> data_;
    const std::size_t size_;
};

}  // namespace Quovane::Internal::Qvtp
