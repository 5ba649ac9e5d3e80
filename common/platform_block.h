/* Blocks of the platform's memory layer, owned by scope. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/tamo_os_mem.h"

/* Gives a block back under the unit and the line that took charge of it. */
struct BlockRelease {
    const char *unit;
    uint32_t line;

    void operator()(void *block) const { OSMemTypeFreeMon(block, 0, 0, line, unit); }
};

/* A zero-filled block that is released at the end of its scope, unless release() hands it on. */
template <typename Record>
using PlatformBlock = std::unique_ptr<Record, BlockRelease>;

/* Takes a block of `size` bytes, which may be more than one Record needs; null without memory. */
template <typename Record>
PlatformBlock<Record> takeBlock(size_t size, const char *unit, uint32_t line = __builtin_LINE()) {
    void *block = OsMemMallocSetCharMon(size, 0, 0, 0, line, unit);
    return PlatformBlock<Record>(static_cast<Record *>(block), BlockRelease{unit, line});
}
