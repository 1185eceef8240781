#pragma once

#include "platform/PipeBackEnd.h"

#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace Quovane::Internal::Qvtp {

/// The table of handles. A stale one reaches nothing, since no value is used again.
///
/// `Object` is the system's PipeObject, with `enter()`, `leave()` and `close()`. `Lock` is what the system offers for a
/// short exclusion. `Numbering` has `NativeHandle next(const Object&)`, which gives the value for a new object.
template <typename Object, typename Lock, typename Numbering>
class HandleTable final : public OpenHandles {
  public:
    NativeHandle add(std::shared_ptr<Object> object) {
        const std::lock_guard<Lock> guard(lock_);
        const NativeHandle handle = numbering_.next(*object);
        objects_.emplace(handle, std::move(object));
        return handle;
    }

    std::shared_ptr<Object> enter(NativeHandle handle) override {
        const std::lock_guard<Lock> guard(lock_);
        const auto found = objects_.find(handle);
        if (found == objects_.end()) return nullptr;
        found->second->enter();
        return found->second;
    }

    void leave(Object& object) override { object.leave(); }

    void close(NativeHandle handle) override {
        if (const auto object = remove(handle)) object->close();
    }

    Lock& lock() { return lock_; }

  private:
    /// The object, which no call can enter any more. Null for a stale or invalid handle.
    std::shared_ptr<Object> remove(NativeHandle handle) {
        const std::lock_guard<Lock> guard(lock_);
        const auto found = objects_.find(handle);
        if (found == objects_.end()) return nullptr;
        std::shared_ptr<Object> object = std::move(found->second);
        objects_.erase(found);
        return object;
    }

    Lock lock_;  // guards the rest
    std::unordered_map<NativeHandle, std::shared_ptr<Object>> objects_;
    Numbering numbering_;
};

}  // namespace Quovane::Internal::Qvtp
