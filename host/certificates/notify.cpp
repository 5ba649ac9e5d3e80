/* See cert_notify.h.
 *
 * The first handler starts a thread that lives as long as the process. A child of fork has neither thread
 * nor handler until it registers its own. */
#include "host/certificates/notify.h"

#include <pthread.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <new>

#include "host/base/log.h"
#include "host/certificates/watch.h"
#include "tamo_host.h"

namespace tamo {

namespace {

constexpr const char *kUnit = "cert_notify";

enum class Begun { kNot, kStarting, kWatching, kFailed };

pthread_mutex_t startLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t started = PTHREAD_COND_INITIALIZER;
Begun begun = Begun::kNot;
uint32_t startResult = TAMO_HOST_OK;
std::atomic<ConfOmCertHandler> handlerNow;

/* Made anew after a fork; the parent's, whose thread is not there, is left as it is. */
CertWatch *watch = nullptr;

void tell(uint32_t message, uint32_t certId) {
    const ConfOmCertHandler handler = handlerNow.load(std::memory_order_acquire);
    if (handler != nullptr) {
        handler(message, certId);
    }
}

void tellAll(const CertChanges &changes) {
    for (uint32_t index = 0; index < kCertIds; index++) {
        if (changes.server[index]) {
            tell(OM_CERT_MSG_SERVER, kFirstCertId + index);
        }
    }
    if (changes.ca) {
        tell(OM_CERT_MSG_CA, 0);
    }
    if (changes.crl) {
        tell(OM_CERT_MSG_CRL, 0);
    }
}

void *runWatch(void *) {
    (void)pthread_setname_np(pthread_self(), "tamo_cert");
    pthread_mutex_lock(&startLock);
    CertWatch *mine = watch;
    startResult = mine->open();
    begun = startResult == TAMO_HOST_OK ? Begun::kWatching : Begun::kFailed;
    pthread_cond_broadcast(&started);
    pthread_mutex_unlock(&startLock);
    if (startResult != TAMO_HOST_OK) {
        return nullptr;
    }
    while (mine->wait()) {
        tellAll(mine->look());
    }
    hostRecord(kError, kUnit, __LINE__,
               "certificates are no longer watched: start the program again to hear of changes");
    return nullptr;
}

void afterForkInChild() {
    if (begun != Begun::kNot && watch != nullptr) {
        watch->forget();
    }
    watch = nullptr;
    begun = Begun::kNot;
    handlerNow.store(nullptr, std::memory_order_relaxed);
    pthread_mutex_unlock(&startLock);
}

/* With all signals blocked, which the watch needs and a program expects of a library's thread. */
int startThread() {
    static const int guarded =
        pthread_atfork([] { pthread_mutex_lock(&startLock); },
                       [] { pthread_mutex_unlock(&startLock); }, afterForkInChild);
    watch = guarded == 0 ? new (std::nothrow) CertWatch : nullptr;
    if (watch == nullptr) {
        return ENOMEM;
    }
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, runWatch, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error == 0) {
        pthread_detach(thread);
    }
    return error;
}

uint32_t beginWatching() {
    if (begun == Begun::kNot || begun == Begun::kFailed) {
        delete watch;
        const int error = startThread();
        if (error != 0) {
            hostRecord(kError, kUnit, __LINE__,
                       "the thread that watches certificates cannot be started: %s",
                       strerror(error));
            return TAMO_HOST_SYSTEM;
        }
        begun = Begun::kStarting;
    }
    while (begun == Begun::kStarting) {
        pthread_cond_wait(&started, &startLock);
    }
    return begun == Begun::kWatching ? uint32_t{TAMO_HOST_OK} : startResult;
}

}  // namespace

uint32_t setCertHandler(ConfOmCertHandler handler) {
    if (handler == nullptr) {
        handlerNow.store(nullptr, std::memory_order_release);
        return TAMO_HOST_OK;
    }
    pthread_mutex_lock(&startLock);
    const uint32_t code = beginWatching();
    if (code == TAMO_HOST_OK) {
        handlerNow.store(handler, std::memory_order_release);
    }
    pthread_mutex_unlock(&startLock);
    return code;
}

}  // namespace tamo
