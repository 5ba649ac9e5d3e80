/* See thread.h. */
#include "host/base/thread.h"

#include <pthread.h>
#include <signal.h>

int tamo::startThread(const char *name, void *(*run)(void *), void *argument) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, run, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error == 0) {
        (void)pthread_setname_np(thread, name);
        (void)pthread_detach(thread);
    }
    return error;
}
