/* libtamo_om_config_client: the configuration service's client.
 *
 * 1. The service keeps one text per key, for all processes of the device, and keeps it when they
 *    end. ASCII letters of keys are the same in either case; a key keeps its first spelling, under
 *    which it is reported. Results are 0 for success.
 * 2. Records have fixed layouts. Key and value texts are NUL-terminated in their buffers; the
 *    client sets the lengths beside them and refuses a text that does not fit or is not terminated.
 * 3. A call on several records is one transaction: all or nothing, in one round trip. What a write
 *    stored survives the end of any process and of the device once the call has returned 0.
 * 4. Reading and writing work from any thread, also for a process that has not connected; only
 *    change reports need a connection. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A key: at most 127 characters, and their number. */
typedef struct ConfConfigOmKey {
    char text[128];
    uint8_t length;
    uint8_t spare[3];
} ConfConfigOmKey;

/* A value: at most 1023 characters, and their number without the terminator. */
typedef struct ConfConfigOmVal {
    char text[1024];
    uint32_t length;
} ConfConfigOmVal;

/* A key with its value. Arrays of records are contiguous. */
typedef struct ConfConfigOmRecord {
    ConfConfigOmKey key;
    ConfConfigOmVal value;
} ConfConfigOmRecord;

/* One changed key in a report. */
typedef struct ConfConfigChangeItem {
    ConfConfigOmKey key;
    ConfConfigOmVal *value; /* the new value */
} ConfConfigChangeItem;

/* A report: the keys that one write changed. */
typedef struct ConfConfigChangeList {
    uint32_t count;
    ConfConfigChangeItem *items;
} ConfConfigChangeList;

/* Receives reports of changes, message id 65536, on the client's own thread; the report is valid
 * until the handler returns. The two reserved words are 0. */
typedef void (*ConfConfigChangeHandler)(uint32_t msgId, uint32_t reserved1, uint32_t reserved2,
                                        const ConfConfigChangeList *changes);

/* Connects the module of an owner (a process name) to the service; a module that is connected stays
 * so. Both names have 1 to 63 characters. */
int32_t TamoOmConfigInit(uint32_t zero, const char *ownerName, const char *moduleName);

/* Makes `handler` the receiver of change reports for a connected module; a later handler replaces
 * it, null removes it.
 *
 * - Every write from now on, of this process or another, makes one report of all keys whose stored
 *   value it changed; a write that changes none makes none. A key that was removed is reported with
 *   an empty value.
 * - Reports come one after the other in the order of the writes, so that the last report of a key is
 *   its last write, and may come before this has returned. None is lost while the process lives, and
 *   none waits for another process than the one that writes; a writer never waits for a handler. A
 *   client that has fallen too far behind may report all keys as they stand in place of what it
 *   missed.
 * - The handler may call every operation of the client.
 * - Another handler that was there before does not run any more once this has returned, unless it is
 *   the one that calls. The same handler stays, and is not waited for. A child of fork has no
 *   handlers until it makes its own the receivers. */
int32_t TamoOmConfigNotifyCallback(ConfConfigChangeHandler handler, const char *moduleName);

/* Disconnects a module. Its handler does not run any more once this has returned, unless it is the
 * one that calls: hold no lock here that the handler waits for. */
int32_t TamoOmConfigUnInit(const char *moduleName);

/* Puts a key text and its length into a record; an empty or too long text is refused and the key
 * part cleared. */
int32_t TamoOmConfigcopyStr2Key(ConfConfigOmRecord *record, const char *key);

/* Puts a value text and its length into a value part; `text` may be the value part's own text,
 * whose length is then set. A too long text is refused and the value part cleared. */
int32_t TamoOmConfigcopyStr2Val(ConfConfigOmVal *value, const char *text);

/* Puts a signed number into a value part as decimal text, with its length. */
int32_t TamoOmConfigsetIntValue(ConfConfigOmVal *value, int64_t number);

/* The same for an unsigned number. */
int32_t TamoOmConfigsetUintValue(ConfConfigOmVal *value, uint64_t number);

/* Fills the record's value part with the stored value of its key. Fails, with the value part
 * cleared, when the service has none. */
int32_t TamoOmConfigStringGet(ConfConfigOmRecord *record);

/* The same for `count` records as of one moment. Fails when the service has no value for one of
 * them; the others' value parts are filled all the same. */
int32_t TamoOmConfigStringMget(ConfConfigOmRecord *records, uint32_t count);

/* Stores the values of `count` records under their keys; on failure none of them. */
int32_t TamoOmConfigStringMset(const ConfConfigOmRecord *records, uint32_t count);

/* Stores one record, passed whole. */
int32_t TamoOmConfigStringSet(ConfConfigOmRecord record);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(sizeof(ConfConfigOmKey) == 132 && offsetof(ConfConfigOmKey, length) == 128);
static_assert(sizeof(ConfConfigOmVal) == 1028 && offsetof(ConfConfigOmVal, length) == 1024);
static_assert(sizeof(ConfConfigOmRecord) == 1160 && offsetof(ConfConfigOmRecord, value) == 132);
static_assert(sizeof(ConfConfigChangeItem) == 132 + 4 * (sizeof(void *) / 8) + sizeof(void *));
static_assert(offsetof(ConfConfigChangeList, items) == sizeof(void *));
static_assert(offsetof(ConfConfigChangeItem, value) == (sizeof(void *) == 4 ? 132 : 136));
static_assert(sizeof(ConfConfigChangeList) == (sizeof(void *) == 4 ? 8 : 16));
#endif
