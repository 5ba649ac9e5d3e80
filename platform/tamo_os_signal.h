/* libtamo_os_signal: signal masks of threads. Results are 0 for success. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A set of signals; opaque. */
typedef struct OsSigSet {
    uint64_t words[16];
} OsSigSet;

/* Makes a set empty. */
uint32_t OsSigEmptySet(OsSigSet *set);

/* Adds a signal, by the system's number. */
uint32_t OsSigAddSet(OsSigSet *set, int32_t signal);

/* Changes the calling thread's mask: `how` 0 blocks the signals of the set. The mask as it was goes to
 * `oldSet`, which may be null. */
uint32_t OsPthreadSigmask(int32_t how, const OsSigSet *set, OsSigSet *oldSet);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
