// Counts the blocks that a program takes from the C library, whose own functions do the work. Preloaded; at the end of
// the program the number goes into the file that ALLOCATION_COUNT_FILE names.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::atomic<unsigned long> taken{0};

void count() {
    taken.fetch_add(1, std::memory_order_relaxed);
}

[[gnu::destructor]] void writeCount() {
    const char* const path = std::getenv("ALLOCATION_COUNT_FILE");
    if (path == nullptr) return;
    const int file = ::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (file < 0) return;
    ::dprintf(file, "%lu\n", taken.load());
    ::close(file);
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
    count();
    return __libc_malloc(size);
}

[[gnu::visibility("default")]] void* calloc(std::size_t number, std::size_t size) {
    count();
    return __libc_calloc(number, size);
}

[[gnu::visibility("default")]] void* realloc(void* block, std::size_t size) {
    count();
    return __libc_realloc(block, size);
}

[[gnu::visibility("default")]] void* aligned_alloc(std::size_t alignment, std::size_t size) {
    count();
    return __libc_memalign(alignment, size);
}

[[gnu::visibility("default")]] int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    count();
    *block = __libc_memalign(alignment, size);
    return *block == nullptr ? 12 : 0;  // ENOMEM
}
}
