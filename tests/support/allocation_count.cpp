/* See allocation_count.h. Linked only into the programs that use it. */
#include "allocation_count.h"

#include <cstddef>
#include <cstdlib>

namespace {

thread_local constinit uint64_t taken = 0;

}  // namespace

#ifdef CONF_SANITIZED

// The sanitizers call it for every block.
extern "C" __attribute__((visibility("default"))) void __sanitizer_malloc_hook(
    const volatile void *, size_t) {
    ++taken;
}

#else

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

__attribute__((visibility("default"))) void *malloc(size_t size) {
    ++taken;
    return __libc_malloc(size);
}

__attribute__((visibility("default"))) void *calloc(size_t count, size_t size) {
    ++taken;
    return __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void *realloc(void *block, size_t size) {
    ++taken;
    return __libc_realloc(block, size);
}

}  // extern "C"

#endif

namespace support {

AllocationCount::AllocationCount() : before_(::taken) {}

uint64_t AllocationCount::taken() const {
    return ::taken - before_;
}

}  // namespace support
