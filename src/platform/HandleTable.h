#pragma once

#include "platform/PipeBackEnd.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// The table of handles. A stale one reaches nothing, since no value is used again. It is kept in parts, each with a
/// lock of its own, so that threads with pipes of their own seldom meet.
///
/// `Object` is the system's PipeObject, with `enter()`, `leave()` and `close()`. `Lock` is what the system offers for a
/// short exclusion. `Numbering` has `NativeHandle next(const Object&)`, which gives the value for a new object.
template <typename Object, typename Lock, typename Numbering>
class HandleTable final : public OpenHandles {
  public:
    NativeHandle add(std::shared_ptr<Object> object) {
        const NativeHandle handle = number(*object);
        Part& part = partOf(handle);
        const std::lock_guard<Lock> guard(part.lock);
        part.objects.insert(part.place(handle), {handle, std::move(object)});
        return handle;
    }

    std::shared_ptr<Object> enter(NativeHandle handle) override {
        Part& part = partOf(handle);
        const std::lock_guard<Lock> guard(part.lock);
        const auto found = part.find(handle);
        if (found == part.objects.end()) return nullptr;
        found->second->enter();
        return found->second;
    }

    void leave(Object& object) override { object.leave(); }

    void close(NativeHandle handle) override {
        if (const auto object = remove(handle)) object->close();
    }

    /// The whole table, for a fork.
    void lock() {
        numberingLock_.lock();
        for (Part& part : parts_) part.lock.lock();
    }
    void unlock() {
        for (Part& part : parts_) part.lock.unlock();
        numberingLock_.unlock();
    }

  private:
    static constexpr std::size_t PARTS = 16;
    static constexpr std::size_t CACHE_LINE = 64;
    static constexpr std::size_t STEP = 4;  // from one value to the next

    using Objects = std::vector<std::pair<NativeHandle, std::shared_ptr<Object>>>;

    struct alignas(CACHE_LINE) Part {
        typename Objects::iterator place(NativeHandle handle) {
            const auto isBefore = [](const auto& entry, NativeHandle wanted) { return entry.first < wanted; };
            return std::lower_bound(objects.begin(), objects.end(), handle, isBefore);
        }
        typename Objects::iterator find(NativeHandle handle) {
            const auto found = place(handle);
            return found != objects.end() && found->first == handle ? found : objects.end();
        }

        Lock lock;        // guards the objects
        Objects objects;  // in the order of their handles: a part has few
    };

    Part& partOf(NativeHandle handle) { return parts_[static_cast<std::size_t>(handle) / STEP % PARTS]; }

    NativeHandle number(const Object& object) {
        const std::lock_guard<Lock> guard(numberingLock_);
        return numbering_.next(object);
    }

    /// The object, which no call can enter any more. Null for a stale or invalid handle.
    std::shared_ptr<Object> remove(NativeHandle handle) {
        Part& part = partOf(handle);
        const std::lock_guard<Lock> guard(part.lock);
        const auto found = part.find(handle);
        if (found == part.objects.end()) return nullptr;
        std::shared_ptr<Object> object = std::move(found->second);
        part.objects.erase(found);
        return object;
    }

    std::array<Part, PARTS> parts_;
    Lock numberingLock_;  // guards numbering_
    Numbering numbering_;
};

}  // namespace Quovane::Internal::Qvtp
