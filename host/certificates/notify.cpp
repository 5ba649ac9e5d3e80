/* The first handler starts a thread that lives as long as the process. A child of fork has neither thread
 * nor handler until it registers its own. */
#include "host/certificates/notify.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <new>

#include "host/base/fork.h"
#include "host/base/log.h"
#include "host/base/thread.h"
#include "host/certificates/watch.h"
#include "tamo_host.h"

namespace tamo::certificates {

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

/* Held while the watch reads certificates. The process takes it at its end and keeps it, since OpenSSL
 * releases then what the watch would still be using. */
pthread_mutex_t lookLock = PTHREAD_MUTEX_INITIALIZER;
bool endsLooking = false;

/* ---- the versions that queries answer from ---- */

constinit std::mutex versionsLock;
constinit bool holdsBack = false; /* while there is a thread that tells of changes */
constinit char told[kCertIds][kVersionNameSize] = {}; /* empty: there was none */

/* What the handler on this thread is being told of. */
struct Telling {
    uint32_t certId;
    const char *version;
};
thread_local const Telling *telling = nullptr;

void show(uint32_t certId, const char *version) {
    const std::lock_guard guard(versionsLock);
    (void)snprintf(told[certId - kFirstCertId], kVersionNameSize, "%s", version);
}

void holdBack(const CertWatch *versions) {
    const std::lock_guard guard(versionsLock);
    holdsBack = versions != nullptr;
    for (uint32_t index = 0; holdsBack && index < kCertIds; index++) {
        (void)snprintf(told[index], kVersionNameSize, "%s", versions->version(index));
    }
}

/* ---- notifications ---- */

void tell(uint32_t message, uint32_t certId) {
    const ConfOmCertHandler handler = handlerNow.load(std::memory_order_acquire);
    if (handler != nullptr) {
        handler(message, certId);
    }
}

void tellAll(const CertChanges &changes, const CertWatch &versions) {
    for (uint32_t index = 0; index < kCertIds; index++) {
        if (changes.server[index]) {
            const Telling now = {kFirstCertId + index, versions.version(index)};
            telling = &now;
            tell(OM_CERT_MSG_SERVER, now.certId);
            showToldVersion();
            telling = nullptr;
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
    pthread_mutex_lock(&startLock);
    CertWatch *mine = watch;
    startResult = mine->open();
    holdBack(startResult == TAMO_HOST_OK ? mine : nullptr);
    begun = startResult == TAMO_HOST_OK ? Begun::kWatching : Begun::kFailed;
    pthread_cond_broadcast(&started);
    pthread_mutex_unlock(&startLock);
    if (startResult != TAMO_HOST_OK) {
        return nullptr;
    }
    while (mine->wait()) {
        pthread_mutex_lock(&lookLock);
        const CertChanges changes = mine->look();
        pthread_mutex_unlock(&lookLock);
        tellAll(changes, *mine);
    }
    holdBack(nullptr);
    hostRecord(kError, kUnit, __LINE__,
               "certificates are no longer watched: start the program again to hear of changes");
    return nullptr;
}

void lockAll() {
    pthread_mutex_lock(&startLock);
    versionsLock.lock();
}

void unlockAll() {
    versionsLock.unlock();
    pthread_mutex_unlock(&startLock);
}

void afterForkInChild() {
    if (begun != Begun::kNot && watch != nullptr) {
        watch->forget();
    }
    watch = nullptr;
    lookLock = PTHREAD_MUTEX_INITIALIZER; /* its holder was not taken along */
    begun = Begun::kNot;
    handlerNow.store(nullptr, std::memory_order_relaxed);
    holdsBack = false;
    telling = nullptr;
    unlockAll();
}

void endLooking() {
    pthread_mutex_lock(&lookLock);
}

int startWatch() {
    if (!endsLooking) {
        /* What is registered last runs first: OpenSSL registers its end now, unless it is asked for
         * nothing. */
        (void)OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
        endsLooking = atexit(endLooking) == 0;
    }
    guardForks(ForkStage::kCertificateWatch, {lockAll, unlockAll, afterForkInChild});
    watch = new (std::nothrow) CertWatch;
    return watch == nullptr ? ENOMEM : startThread("tamo_cert", runWatch, nullptr);
}

uint32_t beginWatching() {
    if (begun == Begun::kNot || begun == Begun::kFailed) {
        delete watch;
        const int error = startWatch();
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

bool visibleVersion(uint32_t certId, char (&name)[kVersionNameSize]) {
    const bool isTold = telling != nullptr && telling->certId == certId;
    const std::lock_guard guard(versionsLock);
    (void)snprintf(name, sizeof(name), "%s",
                   isTold ? telling->version : told[certId - kFirstCertId]);
    return holdsBack && name[0] != '\0';
}

void showToldVersion() {
    if (telling != nullptr) {
        show(telling->certId, telling->version);
    }
}

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

}  // namespace tamo::certificates
