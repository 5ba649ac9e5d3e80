/* See counted_memory.h. */
#include "counted_memory.h"

#include <dlfcn.h>

#include <atomic>

#include "platform/tamo_os_mem.h"

namespace {

std::atomic<int64_t> blocks{0};
std::atomic<bool> failing{false};

template <typename Function>
Function *next(Function *, const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void *OsMemMallocSetCharMon(size_t size, uint32_t a, uint32_t b, uint32_t c, uint32_t line,
                            const char *file) {
    if (failing.exchange(false)) {
        return nullptr;
    }
    static auto *real = next(OsMemMallocSetCharMon, "OsMemMallocSetCharMon");
    void *block = real(size, a, b, c, line, file);
    blocks += block != nullptr ? 1 : 0;
    return block;
}

uint32_t OSMemTypeFreeMon(void *block, uint32_t a, uint32_t b, uint32_t line, const char *file) {
    static auto *real = next(OSMemTypeFreeMon, "OSMemTypeFreeMon");
    const uint32_t result = real(block, a, b, line, file);
    blocks -= result == 0 ? 1 : 0;
    return result;
}

namespace counted {

int64_t outstanding() {
    return blocks;
}

void failNext() {
    failing = true;
}

}  // namespace counted
