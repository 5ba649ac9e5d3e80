/* Mutexes: the system's own, inside the storage that the interface reserves. A zeroed one is what
 * PTHREAD_MUTEX_INITIALIZER makes. */
#include "platform/tamo_os_lock.h"

#include <pthread.h>

#include <cerrno>

static_assert(sizeof(pthread_mutex_t) <= sizeof(OsMutex));
static_assert(alignof(pthread_mutex_t) <= alignof(OsMutex));

namespace {

pthread_mutex_t *system(OsMutex *mutex) {
    return reinterpret_cast<pthread_mutex_t *>(mutex->words);
}

}  // namespace

uint32_t OsMutexInit(OsMutex *mutex, const void *attributes) {
    if (mutex == nullptr || attributes != nullptr) {
        return EINVAL;
    }
    return static_cast<uint32_t>(pthread_mutex_init(system(mutex), nullptr));
}

uint32_t OsMutexLock(OsMutex *mutex) {
    return mutex == nullptr ? EINVAL : static_cast<uint32_t>(pthread_mutex_lock(system(mutex)));
}

uint32_t OsMutexUnLock(OsMutex *mutex) {
    return mutex == nullptr ? EINVAL : static_cast<uint32_t>(pthread_mutex_unlock(system(mutex)));
}

uint32_t OsMutexDestroy(OsMutex *mutex) {
    return mutex == nullptr ? EINVAL : static_cast<uint32_t>(pthread_mutex_destroy(system(mutex)));
}
