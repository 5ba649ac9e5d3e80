/* The one registration with the system that all fork handlers share. */
#include "host/base/fork.h"

#include <pthread.h>
#include <stddef.h>

#include <atomic>

namespace tamo {
namespace {

constexpr size_t kStages = static_cast<size_t>(ForkStage::kCount);

/* Installed without a lock: whoever installs may hold one that another thread's fork waits for. */
struct Stage {
    std::atomic<bool> claimed;
    std::atomic<bool> installed;
    ForkGuard guard;
};

constinit Stage stages[kStages] = {};

/* Held across fork, one at a time. A guard that is installed meanwhile counts from the next one on. */
pthread_mutex_t forkLock = PTHREAD_MUTEX_INITIALIZER;
constinit bool counts[kStages] = {};

void call(void (*handler)()) {
    if (handler != nullptr) {
        handler();
    }
}

void beforeFork() {
    pthread_mutex_lock(&forkLock);
    for (size_t at = 0; at < kStages; at++) {
        counts[at] = stages[at].installed.load(std::memory_order_acquire);
        if (counts[at]) {
            call(stages[at].guard.before);
        }
    }
}

void inParent() {
    for (size_t at = kStages; at > 0; at--) {
        if (counts[at - 1]) {
            call(stages[at - 1].guard.inParent);
        }
    }
    pthread_mutex_unlock(&forkLock);
}

void inChild() {
    for (size_t at = kStages; at > 0; at--) {
        if (counts[at - 1]) {
            call(stages[at - 1].guard.inChild);
        }
    }
    pthread_mutex_unlock(&forkLock);
}

__attribute__((constructor)) void watchForks() {
    (void)pthread_atfork(beforeFork, inParent, inChild);
}

}  // namespace

void guardForks(ForkStage stage, ForkGuard guard) {
    Stage *own = &stages[static_cast<size_t>(stage)];
    if (!own->claimed.exchange(true)) {
        own->guard = guard;
        own->installed.store(true, std::memory_order_release);
    }
}

}  // namespace tamo
