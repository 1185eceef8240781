#pragma once

#include <qvtp/platform/NativeHandle.h>

#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::NativeHandle;

/// The pipes of this process by handle. A stale handle reaches nothing, since no value is used again.
///
/// `Lock` is what the system offers for a short exclusion. `Numbering` has `NativeHandle next(const Object&)`, which
/// gives the value for a new object. `Object` has `enter()`, which a running call makes before it uses the object.
template <typename Object, typename Lock, typename Numbering>
class HandleTable {
  public:
    NativeHandle add(std::shared_ptr<Object> object) {
        const std::lock_guard<Lock> guard(lock_);
        const NativeHandle handle = numbering_.next(*object);
        objects_.emplace(handle, std::move(object));
        return handle;
    }

    /// The object, entered. Null for a stale or invalid handle.
    std::shared_ptr<Object> enter(NativeHandle handle) {
        const std::lock_guard<Lock> guard(lock_);
        const auto found = objects_.find(handle);
        if (found == objects_.end()) return nullptr;
        found->second->enter();
        return found->second;
    }

    /// The object, which no call can enter any more. Null for a stale or invalid handle.
    std::shared_ptr<Object> remove(NativeHandle handle) {
        const std::lock_guard<Lock> guard(lock_);
        const auto found = objects_.find(handle);
        if (found == objects_.end()) return nullptr;
        std::shared_ptr<Object> object = std::move(found->second);
        objects_.erase(found);
        return object;
    }

    Lock& lock() { return lock_; }

  private:
    Lock lock_;  // guards the rest
    std::unordered_map<NativeHandle, std::shared_ptr<Object>> objects_;
    Numbering numbering_;
};

}  // namespace Quovane::Internal::Qvtp
