#include "support/OutOfMemory.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace qvtp_test {
namespace {

// Plain values: operator new may run before and after everything else.
thread_local bool active = false;
thread_local bool failed = false;
thread_local bool failsOnce = false;
thread_local long left = 0;
thread_local std::size_t smallestSize = 0;
thread_local long live = 0;

bool mustFail(std::size_t size) {
    if (!active || size < smallestSize) return false;
    if (failed) return !failsOnce;
    if (--left > 0) return false;
    failed = true;
    return true;
}

/// As the language has it: what fails is tried again as long as there is a handler that returns.
void* allocateOrThrow(std::size_t size) {
    for (;;) {
        void* const block = mustFail(size) ? nullptr : std::malloc(size > 0 ? size : 1);
        if (block != nullptr) {
            ++live;
            return block;
        }
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) throw std::bad_alloc();
        handler();
    }
}

void* allocate(std::size_t size) noexcept {
    try {
        return allocateOrThrow(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void release(void* block) noexcept {
    if (block != nullptr) --live;
    std::free(block);
}

/// With room before it for where the block really begins.
void* allocateAligned(std::size_t size, std::align_val_t alignment) {
    const auto step = static_cast<std::size_t>(alignment);
    if (step <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) return allocateOrThrow(size);
    char* const block = static_cast<char*>(allocateOrThrow(size + step + sizeof(void*)));
    const std::size_t over = reinterpret_cast<std::uintptr_t>(block + sizeof(void*)) % step;
    void** const aligned = reinterpret_cast<void**>(block + sizeof(void*) + (over > 0 ? step - over : 0));
    aligned[-1] = block;
    return aligned;
}

void releaseAligned(void* block, std::align_val_t alignment) noexcept {
    const bool isPlain = static_cast<std::size_t>(alignment) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__;
    release(block == nullptr || isPlain ? block : static_cast<void**>(block)[-1]);
}

}  // namespace

OutOfMemory::OutOfMemory(long nth, Extent extent, std::size_t smallest) {
    failed = false;
    failsOnce = extent == ONCE;
    left = nth;
    smallestSize = smallest;
    active = true;
}

OutOfMemory::~OutOfMemory() {
    active = false;
}

bool OutOfMemory::hasFailed() const {
    return failed;
}

long OutOfMemory::liveBlocks() {
    return live;
}

}  // namespace qvtp_test

// All forms but aligned ones that do not throw, since a sanitizer has its own for those that are missing.
void* operator new(std::size_t size) {
    return qvtp_test::allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return qvtp_test::allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return qvtp_test::allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return qvtp_test::allocate(size);
}
void operator delete(void* block) noexcept {
    qvtp_test::release(block);
}
void operator delete[](void* block) noexcept {
    qvtp_test::release(block);
}
void operator delete(void* block, std::size_t) noexcept {
    qvtp_test::release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    qvtp_test::release(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    qvtp_test::release(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    qvtp_test::release(block);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return qvtp_test::allocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return qvtp_test::allocateAligned(size, alignment);
}
void operator delete(void* block, std::align_val_t alignment) noexcept {
    qvtp_test::releaseAligned(block, alignment);
}
void operator delete[](void* block, std::align_val_t alignment) noexcept {
    qvtp_test::releaseAligned(block, alignment);
}
void operator delete(void* block, std::size_t, std::align_val_t alignment) noexcept {
    qvtp_test::releaseAligned(block, alignment);
}
void operator delete[](void* block, std::size_t, std::align_val_t alignment) noexcept {
    qvtp_test::releaseAligned(block, alignment);
}
