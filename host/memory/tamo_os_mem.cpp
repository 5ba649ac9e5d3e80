/* Monitored memory: the system's heap with a small header before each block.
 *
 * The header's mark depends on the block's address, so that neither a foreign pointer nor a copy of
 * a header passes for one; a release changes it, and whoever releases the block again before its
 * memory is reused is refused. */
#include "platform/tamo_os_mem.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "host/base/log.h"
#include "host/memory/mem_account.h"

namespace {

constexpr char kUnit[] = "tamo_os_mem";
constexpr uint32_t kTaken = 0x54414B45;
constexpr size_t kSmall = 1024;
constexpr size_t kLarge = 128 * 1024; /* what the system's heap treats as large at first */
constexpr int kLargestKept = 4 * 1024 * 1024;

struct alignas(std::max_align_t) BlockHeader {
    uint32_t mark;
    uint32_t site;
    size_t size;
};

static_assert(sizeof(BlockHeader) == 16); /* a multiple of every alignment that malloc gives */

uint32_t markOf(const BlockHeader *header) {
    return kTaken ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(header) >> 4);
}

/* Looks at memory that may have been released, which is its purpose. */
__attribute__((no_sanitize("address"), no_sanitize("thread"), noinline)) bool isTaken(
    const BlockHeader *header) {
    return reinterpret_cast<uintptr_t>(header) % alignof(BlockHeader) == 0 &&
           header->mark == markOf(header) && header->site < tamo::memory::kMemSites;
}

/* Large blocks come and go with messages. The system's heap gives them back to the kernel as soon
 * as two of them are free, and each next one is then made of fresh pages at six times the cost
 * (measured with 576,000 bytes). Up to 8 MiB of free memory stay with the process instead. */
void keepLargeBlocks() {
    static std::atomic<bool> kept;
    if (!kept.load(std::memory_order_relaxed) && !kept.exchange(true)) {
        (void)mallopt(M_MMAP_THRESHOLD, kLargestKept);
        (void)mallopt(M_TRIM_THRESHOLD, 2 * kLargestKept);
    }
}

/* malloc takes small blocks from its cache of the thread, which calloc passes by; calloc knows which
 * pages are fresh from the system and need no clearing. */
void *takeZeroed(size_t size) {
    if (size > kSmall) {
        return calloc(1, size);
    }
    void *memory = malloc(size);
    return memory == nullptr ? nullptr : memset(memory, 0, size);
}

/* A plain store before free would be optimised away. */
void wipeMark(BlockHeader *header) {
    *static_cast<volatile uint32_t *>(&header->mark) = 0;
}

}  // namespace

void *OsMemMallocSetCharMon(size_t size, uint32_t, uint32_t, uint32_t, uint32_t line,
                            const char *file) {
    if (size > SIZE_MAX - sizeof(BlockHeader)) {
        return nullptr;
    }
    if (size >= kLarge) {
        keepLargeBlocks();
    }
    auto *header = static_cast<BlockHeader *>(takeZeroed(sizeof(BlockHeader) + size));
    if (header == nullptr) {
        return nullptr;
    }
    header->mark = markOf(header);
    header->size = size;
    header->site = tamo::memory::memAccountTake(file, line, size);
    return header + 1;
}

uint32_t OSMemTypeFreeMon(void *block, uint32_t, uint32_t, uint32_t line, const char *file) {
    if (block == nullptr) {
        return 1;
    }
    auto *header = static_cast<BlockHeader *>(block) - 1;
    if (!isTaken(header)) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "%s:%u releases %p, which is no block of the memory layer or was released "
                         "before: it is left alone, correct that statement",
                         file == nullptr ? "(unknown)" : file, line, block);
        return 1;
    }
    tamo::memory::memAccountGive(header->site, header->size);
    wipeMark(header);
    free(header);
    return 0;
}
