#pragma once

#include "platform/Descriptor_linux.h"
#include "platform/PipeAddress_linux.h"

namespace Quovane::Internal::Qvtp {

/// The lock that keeps other servers away from a name, and reports its direction to clients. It ends with giveBack() or
/// with the process, not with the object: a forked child has one too.
class NameLock {
  public:
    enum class Result { HELD, REFUSED, HELD_BY_ANOTHER, FAILED };

    /// Makes the lock file if there is none. REFUSED: another server had it just now, but has it no more. FAILED leaves
    /// its reason in errno.
    Result take(const PipeAddress& address, char direction);
    bool isHeld() const { return file_.isOpen(); }
    /// Which file it is.
    const FileId& id() const { return id_; }
    void giveBack();

  private:
    Descriptor file_;
    FileId id_;
};

}  // namespace Quovane::Internal::Qvtp
