/* The test program's definitions of the operations of signals, time and timers; the others are in
 * platform_operations.cpp. */
#include "forwarding_platform.h"
#include "platform_slot.h"

using platform::detail::forward;
using platform::detail::kCannotFail;
using platform::detail::kOne;

uint32_t OsSigEmptySet(OsSigSet *set) {
    return forward<&OsSigEmptySet>(CALLER, kOne, set);
}

uint32_t OsSigAddSet(OsSigSet *set, int32_t signal) {
    return forward<&OsSigAddSet>(CALLER, kOne, set, signal);
}

uint32_t OsPthreadSigmask(int32_t how, const OsSigSet *set, OsSigSet *oldSet) {
    return forward<&OsPthreadSigmask>(CALLER, kOne, how, set, oldSet);
}

void OsGetTimeEx(OsTimeEx *record) {
    forward<&OsGetTimeEx>(
        CALLER, [] {}, record);
}

uint32_t OsGetSysTimeSec(void) {
    return forward<&OsGetSysTimeSec>(CALLER, kCannotFail);
}

uint32_t OsTmrManagerInit(uint32_t a, uint32_t tickMicroseconds, uint32_t b) {
    return forward<&OsTmrManagerInit>(CALLER, kOne, a, tickMicroseconds, b);
}

uint32_t OsTmrCreate(OsTmrCreateParam *param, uint32_t *handle) {
    return forward<&OsTmrCreate>(CALLER, kOne, param, handle);
}

uint32_t OsTmrDelete(uint32_t handle) {
    return forward<&OsTmrDelete>(CALLER, kOne, handle);
}
