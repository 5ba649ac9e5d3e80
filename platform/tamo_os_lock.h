/* libtamo_os_lock: mutexes between the threads of one process.
 *
 * 1. Results are 0 for success.
 * 2. Zeroed static storage is a valid unlocked mutex: nothing needs to be initialised first.
 * 3. A mutex is not recursive and is unlocked by the thread that locked it. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Opaque storage, large enough for the platform's mutex in either pointer width. */
typedef struct OsMutex {
    uintptr_t words[8];
} OsMutex;

/* Makes an unlocked mutex out of any storage; `attributes` is null. */
uint32_t OsMutexInit(OsMutex *mutex, const void *attributes);

/* Waits until the mutex is free and takes it. */
uint32_t OsMutexLock(OsMutex *mutex);

/* Releases a mutex that this thread holds. */
uint32_t OsMutexUnLock(OsMutex *mutex);

/* Ends an unlocked mutex; its storage may then be reused. */
uint32_t OsMutexDestroy(OsMutex *mutex);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
