#include "support/FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace qvtp_test {

namespace {

/// Plain data: it exists before the first allocation of a thread and after the last.
struct Plan {
    bool active;
    bool lasting;
    bool happened;
    int left;  // allocations until the failure
};
thread_local Plan plan{};

bool isToFail() {
    if (!plan.active || (plan.happened && !plan.lasting)) return false;
    if (plan.left > 0) --plan.left;
    if (plan.left > 0) return false;
    plan.happened = true;
    return true;
}

void* allocate(std::size_t size) {
    return isToFail() ? nullptr : std::malloc(size > 0 ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    void* const memory = allocate(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace

AllocationFailure::AllocationFailure(int n, Duration duration) {
    plan = Plan{true, duration == Duration::LASTING, false, n};
}

AllocationFailure::~AllocationFailure() {
    plan.active = false;
}

bool AllocationFailure::hasHappened() const {
    return plan.happened;
}

}  // namespace qvtp_test

// All forms but the aligned ones, so that none is left to a sanitizer, which would see memory of one of its own
// operators freed by one of these.

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

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
