/* Code addresses that cross between processes.
 *
 * Processes load the same module at different addresses, so a handler travels as the build id of
 * the module that holds it and its distance from the module's begin, both of which the linker
 * fixed. Any thread may call. */
#pragma once
#include <stdint.h>

namespace tamo::messages {

constexpr uint8_t kMaxBuildId = 20; /* a longer one counts by its first bytes */

struct CodePlace {
    uint64_t offset;
    uint8_t buildIdLength;
    uint8_t buildId[kMaxBuildId];
};

enum class PlaceResult { kFound, kNotCode, kNoBuildId };

/* Describes the place of `address`, if it lies in an executable segment of a loaded module. Takes no
 * lock and allocates nothing. */
PlaceResult placeOfCode(const void *address, CodePlace *place);

/* The file name of the module that `address` lies in, for records. */
const char *moduleNameOf(const void *address);

/* Where modules were found last. Guesses only: modules come and go. */
struct ModuleGuesses {
    static constexpr unsigned kCount = 4;
    CodePlace modules[kCount];
    const uint8_t *begins[kCount];
    unsigned next;
};

/* The address of a place in this process; null when no loaded module has the build id, or the place
 * is not in an executable segment of it. `guesses` is zeroed before its first use and serves one
 * thread at a time. */
const void *codeAtPlace(const CodePlace &place, ModuleGuesses *guesses);

}  // namespace tamo::messages
