/* libtamo_os_mem: monitored memory.
 *
 * 1. Every heap block that crosses an interface of the library comes from here and goes back here,
 *    from whichever module holds it last.
 * 2. `line` and `file` name the calling statement, for the account of outstanding blocks only.
 * 3. Any thread may call; a block may be released by another thread than the one that took it. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Takes a zero-filled block of `size` bytes, aligned for any type; null when there is no memory. A
 * `size` of 0 yields a block that may be released but not written to. `a`, `b` and `c` select pools
 * on some devices; the library passes 0. `file` is a text that outlives the call; the layer copies
 * what it keeps. */
void *OsMemMallocSetCharMon(size_t size, uint32_t a, uint32_t b, uint32_t c, uint32_t line,
                            const char *file);

/* Gives a block back; 0 when it was one. A null block is refused with another value and nothing
 * happens. */
uint32_t OSMemTypeFreeMon(void *block, uint32_t a, uint32_t b, uint32_t line, const char *file);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
