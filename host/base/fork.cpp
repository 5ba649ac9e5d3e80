/* The one registration with the system that all fork handlers share. */
#include "host/base/fork.h"

#include <pthread.h>
#include <stddef.h>

namespace tamo {
namespace {

constexpr size_t kStages = static_cast<size_t>(ForkStage::kCount);

/* Held across fork: a guard that is installed meanwhile counts from the next one on. */
pthread_mutex_t guardLock = PTHREAD_MUTEX_INITIALIZER;
constinit ForkGuard guards[kStages] = {};
constinit bool registered = false;

void call(void (*handler)()) {
    if (handler != nullptr) {
        handler();
    }
}

void beforeFork() {
    pthread_mutex_lock(&guardLock);
    for (size_t at = 0; at < kStages; at++) {
        call(guards[at].before);
    }
}

void inParent() {
    for (size_t at = kStages; at > 0; at--) {
        call(guards[at - 1].inParent);
    }
    pthread_mutex_unlock(&guardLock);
}

void inChild() {
    for (size_t at = kStages; at > 0; at--) {
        call(guards[at - 1].inChild);
    }
    pthread_mutex_unlock(&guardLock);
}

}  // namespace

void guardForks(ForkStage stage, ForkGuard guard) {
    pthread_mutex_lock(&guardLock);
    guards[static_cast<size_t>(stage)] = guard;
    registered = registered || pthread_atfork(beforeFork, inParent, inChild) == 0;
    pthread_mutex_unlock(&guardLock);
}

}  // namespace tamo
