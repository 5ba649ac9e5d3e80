/* libtamo_os_timer: the timer manager.
 *
 * 1. Results are 0 for success.
 * 2. Timers count in ticks of the manager; an expiry function runs on a thread of the manager's.
 * 3. Any thread may create and delete timers, also an expiry function.
 * 4. After OsTmrDelete has returned, the timer's expiry function does not run and will not, except
 *    when the deletion comes from that very expiry. So it waits for a running expiry: its caller holds
 *    nothing that the expiry waits for. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct OsTmrCreateParam OsTmrCreateParam;

/* Told of an expiry with a record that holds the timer's key; the record is valid during the call. */
typedef void (*OsTmrExpiryFn)(OsTmrCreateParam *record);

/* What a timer is to be. Zeroed before use; words without a name stay zero. */
struct OsTmrCreateParam {
    uint32_t unused1;
    char receiver[16]; /* NUL-terminated */
#if UINTPTR_MAX > 0xFFFFFFFFu
    uint32_t unused2;
#endif
    uintptr_t key; /* the creator's */
#if UINTPTR_MAX > 0xFFFFFFFFu
    uint32_t unused3[5];
#else
    uint32_t unused3[7];
#endif
    uint32_t kind;     /* 1 or 8, which the manager hands back unread */
    uint32_t ticks;    /* until the expiry, and between expiries; 0 is the next tick */
    uint32_t periodic; /* 1: expires again and again */
    OsTmrExpiryFn expiry;
};

/* Starts the manager with its tick; the first and last argument are 0. Once it runs, further calls
 * succeed and change nothing. */
uint32_t OsTmrManagerInit(uint32_t a, uint32_t tickMicroseconds, uint32_t b);

/* Creates and starts a timer, and stores its handle, which may be any number but 0, before it can
 * expire. The record is copied. */
uint32_t OsTmrCreate(OsTmrCreateParam *param, uint32_t *handle);

/* Ends a timer. Fails for a handle that is not, or no longer, a timer's; one-shot timers end by
 * themselves when they have fired, and their handles are not soon used again. */
uint32_t OsTmrDelete(uint32_t handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(OsTmrCreateParam, receiver) == 4);
static_assert(offsetof(OsTmrCreateParam, key) == (sizeof(void *) == 4 ? 20 : 24));
static_assert(offsetof(OsTmrCreateParam, kind) == 52);
static_assert(offsetof(OsTmrCreateParam, ticks) == 56);
static_assert(offsetof(OsTmrCreateParam, periodic) == 60);
static_assert(offsetof(OsTmrCreateParam, expiry) == 64);
static_assert(sizeof(OsTmrCreateParam) == 64 + sizeof(void *));
#endif
