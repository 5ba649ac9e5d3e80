/* Signal masks: the system's own sets, inside the storage that the interface reserves. */
#include "platform/tamo_os_signal.h"

#include <errno.h>
#include <signal.h>

static_assert(sizeof(sigset_t) <= sizeof(OsSigSet));
static_assert(alignof(sigset_t) <= alignof(OsSigSet));

namespace {

sigset_t *system(OsSigSet *set) {
    return reinterpret_cast<sigset_t *>(set);
}

uint32_t resultOf(int returned) {
    return returned == 0 ? 0 : static_cast<uint32_t>(errno);
}

}  // namespace

uint32_t OsSigEmptySet(OsSigSet *set) {
    return set == nullptr ? EINVAL : resultOf(sigemptyset(system(set)));
}

uint32_t OsSigAddSet(OsSigSet *set, int32_t signal) {
    return set == nullptr ? EINVAL : resultOf(sigaddset(system(set), signal));
}

uint32_t OsPthreadSigmask(int32_t how, const OsSigSet *set, OsSigSet *oldSet) {
    if (set == nullptr) {
        return EINVAL;
    }
    const auto *wanted = reinterpret_cast<const sigset_t *>(set);
    return static_cast<uint32_t>(pthread_sigmask(how, wanted, system(oldSet)));
}
