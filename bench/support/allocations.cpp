#include "allocations.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>

// The C library's own functions under the names that it keeps for replacements like these.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::uint64_t asked = 0;  // benchmarks have one thread

}  // namespace

std::uint64_t allocatedBytes() {
    return asked;
}

extern "C" {

void* malloc(std::size_t size) {
    asked += size;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    asked += count * size;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
    asked += size;
    return __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    asked += size;
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    asked += size;
    *memory = __libc_memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}
}
