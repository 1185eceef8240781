#include "faults/FaultPlan_linux.h"

#include <malloc.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// The C library's own, which need no lookup: a lookup allocates.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace qvtp_test::faults {

namespace {

Plan current;  // changes only while no plan is on
std::atomic<bool> active{false};
std::atomic<long> counter{0};
std::atomic<long> failures{0};
std::atomic<long> disturbances{0};
std::atomic<long> live{0};
std::atomic<long> freed{0};
std::atomic<std::int64_t> firstMs{0};
std::atomic<const char*> failing{nullptr};
std::atomic<const char*> last{nullptr};

// Storage that is there from a thread's start: what is made at its first use would be allocated here.
__attribute__((tls_model("initial-exec"))) thread_local unsigned side = NEITHER;
__attribute__((tls_model("initial-exec"))) thread_local bool interrupted = false;

bool isWatched() {
    return active.load(std::memory_order_acquire) && (side & current.sides) != 0;
}

}  // namespace

void begin(const Plan& plan) {
    current = plan;
    counter = 0;
    failures = 0;
    disturbances = 0;
    freed = 0;
    failing = nullptr;
    last = "nothing";
    active = true;
}

void end() {
    active = false;
}

long counted() {
    return counter;
}

long failed() {
    return failures;
}

long disturbed() {
    return disturbances;
}

const char* lastFailure() {
    return last;
}

long liveBlocks() {
    return live;
}

Working::Working(unsigned sideNow) : before_(side) {
    side = sideNow;
}

Working::~Working() {
    side = before_;
}

namespace {

std::int64_t nowMs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{1000} * now.tv_sec + now.tv_nsec / 1000000;
}

bool isOver() {
    return current.lastingMs > 0 && nowMs() - firstMs > current.lastingMs;
}

}  // namespace

bool mustFail(Kind kind, const char* function) {
    if (!isWatched() || kind != current.kind || current.nth == 0) return false;
    const long number = ++counter;
    if (number < current.nth) return false;
    if (number == current.nth) {
        firstMs = nowMs();
        failing = function;
    }
    const bool fails = number == current.nth || current.extent == Extent::ALL ||
                       (current.extent == Extent::SAME_FUNCTION && failing == function);
    if (!fails || isOver()) return false;
    last = function;
    ++failures;
    return true;
}

bool mustInterrupt() {
    if (!isWatched() || !current.interrupt) return false;
    interrupted = !interrupted;
    if (interrupted) ++disturbances;
    return interrupted;
}

std::size_t limited(std::size_t size) {
    if (size <= 1 || !isWatched() || !current.singleBytes) return size;
    ++disturbances;
    return 1;
}

int variant() {
    return current.variant;
}

unsigned sideOfThisThread() {
    return side;
}

namespace {

void* enter(void* block) {
    if (block != nullptr) live.fetch_add(1, std::memory_order_relaxed);
    return block;
}

/// What was given back in large blocks while there was nothing else can be had again.
bool isThereAgain(std::size_t size) {
    const auto wanted = static_cast<long>(size);
    if (freed.fetch_sub(wanted) >= wanted) return true;
    freed += wanted;
    return false;
}

bool isMemoryOut(std::size_t size) {
    if (active && freed > 0 && isWatched() && isThereAgain(size)) return false;
    if (!mustFail(Kind::ALLOCATION, "malloc")) return false;
    errno = ENOMEM;
    return true;
}

void leave(void* block) {
    live.fetch_sub(1, std::memory_order_relaxed);
    if (!active || !isWatched() || failures == 0) return;
    constexpr std::size_t LARGE = std::size_t{1} << 19;
    const std::size_t size = ::malloc_usable_size(block);
    if (size >= LARGE) freed += static_cast<long>(size);
}

struct Start {
    void* (*function)(void*);
    void* argument;
    unsigned side;
};

void* startOnSide(void* data) {
    const Start start = *static_cast<Start*>(data);
    __libc_free(data);
    side = start.side;
    return start.function(start.argument);
}

}  // namespace
}  // namespace qvtp_test::faults

using namespace qvtp_test;
using faults::Kind;

extern "C" {

void* malloc(std::size_t size) noexcept {
    return faults::isMemoryOut(size) ? nullptr : faults::enter(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return faults::isMemoryOut(count * size) ? nullptr : faults::enter(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size) noexcept {
    if (faults::isMemoryOut(size)) return nullptr;
    void* const moved = __libc_realloc(block, size);
    if (block == nullptr) return faults::enter(moved);
    if (moved == nullptr && size == 0) --faults::live;
    return moved;
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    return faults::isMemoryOut(size) ? nullptr : faults::enter(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
    void* const made = memalign(alignment, size);
    if (made == nullptr) return ENOMEM;
    *block = made;
    return 0;
}

void free(void* block) noexcept {
    if (block != nullptr) faults::leave(block);
    __libc_free(block);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) noexcept {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto real = faults::hidden<Create>("pthread_create");
    if (faults::mustFail(Kind::THREAD, "pthread_create")) return EAGAIN;
    auto* const start = static_cast<faults::Start*>(__libc_malloc(sizeof(faults::Start)));
    if (start == nullptr) return EAGAIN;
    *start = faults::Start{function, argument, faults::sideOfThisThread()};
    const int result = real(thread, attributes, faults::startOnSide, start);
    if (result != 0) __libc_free(start);
    return result;
}

}  // extern "C"
