/* Configuration: bound variables, key/value lists and single values of the configuration service.
 *
 * 1. The configuration service keeps one text per dotted key ("Conf.SIPCallParam.sipPwd"), at most
 *    127 characters of key and 1023 of value.
 * 2. A process binds its own variables to keys once, inside ConfConfigInit; the index of bound
 *    items is sorted by name and ignores letter case.
 * 3. Results are 0 for success and -1 for failure, unless a function says otherwise.
 * 4. The index has no lock: bind before any other use; before ConfConfigDeInit, or another
 *    ConfConfigInit, call ConfConfigUnInit, so that no report meets the end of the index.
 *    Everything else may run on any thread. Item callbacks run on the service client's thread.
 *
 *     static int32_t port;
 *     static void changed(const ConfConfigListItem *items, uint32_t count) { ... }
 *     static void bindItems(void) {
 *         ConfConfigBind("Conf.SIPCallParam.port", CONF_VALUE_INT, &port, sizeof(port), changed);
 *     }
 *     ConfConfigInit(bindItems, "TamoUIConf", "Conf");
 *     ConfConfigInitOmCfg(); // the variables now hold what the service has
 *
 * 5. Variables are converted from and to text as conf_config_value.h says. Storing them is the
 *    work of the calling thread alone: whoever shares a variable with other threads, or applies
 *    lists on two of them, keeps them apart. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A change report of the configuration service's client. */
typedef struct ConfConfigChangeList ConfConfigChangeList;

/* A key with its value as the service's client takes it. */
typedef struct ConfConfigOmRecord ConfConfigOmRecord;

/* The type of a bound variable. */
typedef enum {
    CONF_VALUE_INT = 1, /* signed, of 1, 2, 4 or 8 bytes */
    CONF_VALUE_UINT,    /* unsigned, of 1, 2, 4 or 8 bytes */
    CONF_VALUE_FLOAT,   /* of 4 or 8 bytes */
    CONF_VALUE_BOOL,    /* 0 is false; of 1, 2, 4 or 8 bytes */
    CONF_VALUE_STR,     /* NUL-terminated text; the size is the buffer's */
    CONF_VALUE_DATA     /* bytes that never go to the configuration service */
} ConfConfigValueType;

/* A key with its value as text: how values travel in lists, change reports and message blocks. Both
 * texts are NUL-terminated. */
typedef struct ConfConfigListItem {
    char key[128];
    char value[1024];
} ConfConfigListItem;

/* Told of changed values, whichever process stored them, this one included: `count` items (at most
 * 255 in a call) in the order of the report, valid only during the call. */
typedef void (*ConfConfigItemCallback)(const ConfConfigListItem *items, uint32_t count);

/* Records that are stored in one operation: the first `used` of an array of `capacity`, which is the
 * caller's. */
typedef struct ConfConfigOmBatch {
    int32_t used;
    int32_t capacity;
    ConfConfigOmRecord *records;
} ConfConfigOmBatch;

/* Binds the caller's items with ConfConfigBind; run by ConfConfigInit. */
typedef void (*ConfConfigRegisterFn)(void);

/* Connects to the configuration service as module `moduleName` of the process `ownerName`, makes
 * the index and runs `registerFn`, which binds the items. A refused connection is recorded and the
 * index works on without it. -1 for a null argument or without memory. Called again it begins a new
 * index and forgets the old one's items. Reads no values yet: ConfConfigInitOmCfg does. */
int32_t ConfConfigInit(ConfConfigRegisterFn registerFn, const char *ownerName,
                       const char *moduleName);

/* Connects again, as module "Conf" of "TamoUIConf"; always 0. The index stays. Waits for no item
 * callback that runs: the handler of reports stays the same. */
int32_t ConfConfigReInit(void);

/* Disconnects the module "Conf"; always 0. The index stays. Waits for the item callback that runs, unless
 * that is the one that calls: hold no lock here that an item callback takes. */
int32_t ConfConfigUnInit(void);

/* Releases the index with all its bindings. 0 when there was none, else the platform's result of
 * the release. The connection stays. */
int32_t ConfConfigDeInit(void);

/* Binds a variable to the key `name` (copied): `value` points to storage of `size` bytes that stays
 * the caller's and outlives the index; `callback` may be null. A name that is bound already, in any
 * letter case, gets the new binding and keeps its spelling. Nothing happens without an index or for
 * a null name; a name of more than 127 characters is refused with a record. `type` is a
 * ConfConfigValueType and is not checked here; an item of CONF_VALUE_DATA is local and hears of no
 * reports. */
void ConfConfigBind(const char *name, int32_t type, void *value, uint32_t size,
                    ConfConfigItemCallback callback);

/* Fills each bound variable that is not local with the service's value of its key, in order of
 * name. A variable keeps its value when the service has none; a text that does not fit its buffer
 * leaves it empty, and a buffer of less than 2 bytes is left alone. No callback is called. Done once,
 * after ConfConfigInit. */
void ConfConfigInitOmCfg(void);

/* Applies `count` key/value texts to the variables bound to their keys. `writeBack` other than 0
 * has every value that changed its variable stored in the service too, 50 in an operation; a batch
 * that the service refuses in the middle of a list is lost, with a record. Returns the number of
 * items found and converted, whether they changed anything or not: negative when the last operation
 * failed, as it does when nothing had changed; 0 for a missing or empty list or without an index.
 * Items with an empty key are passed over; a key that is not bound and a text without an end are
 * recorded and not counted. Item callbacks are not called. One call at a time, also from callbacks.
 *
 *     ConfConfigListItem list[] = {{"Conf.SIPCallParam.port", "5061"}};
 *     if (ConfConfigSetList(list, 1, 1) == 1)
 *         ... the variable had another value and is stored */
int32_t ConfConfigSetList(const ConfConfigListItem *list, int32_t count, uint8_t writeBack);

/* Stores the values of bound variables in the service, 50 in an operation. Each of the `count`
 * keys selects some, in any letter case: "" all that are not local, a text that ends with "." those
 * whose names begin with it, any other text the one of that name; null keys are passed over. A text
 * of more than 1023 characters, or without an end in its variable, is recorded and not stored (a text
 * bound with size 0 has no bound but its end). 0, or
 * -1: a null array, no keys, no index, no memory, nothing selected, or a refused last operation. */
int32_t ConfConfigSyncToOM(const char *const *keys, int32_t count);

/* The same for one key.
 *
 *     ConfConfigSyncByKeyToOM("Conf.SIPCallParam."); */
int32_t ConfConfigSyncByKeyToOM(const char *key);

/* Stores the used records of a batch in one operation and empties it, whatever comes of that. 0, or
 * -1: no batch, no array, no used record, or the service refused. */
int32_t ConfConfigSyncOmCfg(ConfConfigOmBatch *batch);

/* The handler of change reports: hands the changed values (message id 65536) to the callbacks of
 * the items bound to them, each callback once per 255 of its items, in the order of the report.
 * Bound variables are not written: what a callback gets can go to ConfConfigSetList as it is.
 * ConfConfigInit registers it; it needs no other caller. */
void ConfConfigClientCallBack(uint32_t msgId, uint32_t reserved1, uint32_t reserved2,
                              const ConfConfigChangeList *changes);

/* A message handler: reads the values of the keys listed in the body of the message block `block`
 * of `blockSize` bytes (at most 500 ConfConfigListItem records, block->itemCount of them) in one
 * operation and hangs the list of keys and values on block->resultList, which then belongs to the
 * block's owner. 0, 0xFFFFFFFF (an invalid block, no memory), or the service's result when it
 * refused, for instance because it has no value for one of the keys. `reserved` is not used. Look
 * at block->resultList whatever the result: a list that could not be filled is there too. A list of
 * an earlier request is overwritten, not released. */
uint32_t ConfConfigGetConfConfig(uint32_t reserved, void *block, uint32_t blockSize);

/* A message handler: stores the keys and values of the block's body in one operation. The values of
 * "Conf.SIPCallParam.sipPwd" and "Conf.H323CallParam.gkPwd" are stored encrypted and wiped from the
 * block. 0, 0xFFFFFFFF (an invalid block), 1 (a value could not be encrypted; nothing is stored) or
 * CONF_COMM_ERR_MSG_INVALID (the service refused). `size` is the block's size as the message
 * carried it; 0 takes the block at its word. */
uint32_t ConfConfigSetConfConfig(uint32_t reserved, void *block, uint32_t size);

/* The service's value of a key as an integer, as ConfGetAtoi reads it; 1, with a record, when there
 * is none or it is no number. */
int32_t ConfConfigGetIntValue(const char *key);

/* Stores the service's value of a key in `out`: decimal, "0x" hexadecimal or "0" octal, up to the
 * first character that does not fit; 0 without digits. Returns 0, or 1 when it cannot be read. */
int32_t ConfConfigGetUint64Value(const char *key, uint64_t *out);

/* Stores a number under a key. Returns 0, or 1 on failure. */
int32_t ConfConfigSetUint64Value(const char *key, uint64_t value);

/* The security setting "Conf.SecurityParam.enableEofb"; 1 when the service has no such number. */
int32_t GetEnableEofb(void);

/* The security setting "Conf.SIPCallParam.PreventAttack"; 1 when the service has no such number. */
int32_t GetSipPreventAttack(void);

/* Stores "Conf.SecurityParam.enableEofb", 0 to 255. Returns 0, or 1 on failure. */
int32_t SetEnableEofb(uint8_t flag);

/* Stores "Conf.SIPCallParam.PreventAttack", 0 to 255. Returns 0, or 1 on failure. */
int32_t SetSipPreventAttack(uint8_t flag);

/* Writes the device's own address into a buffer of 42 bytes: the service's
 * "DEVM.NET.LAN1.IPV4ADDR" (IPv6: "DEVM.NET.LAN1.IPV6ADDR"), or, where the switch file forbids the
 * kit capability, device management's for `selector`. Clear the buffer before: the service's text
 * comes without a terminator, and nothing is written when there is none, which gives 0 too. Returns
 * 0, 1 for a null buffer, an error of the copy when the text is too long, or device management's
 * result. */
int32_t ConfConfigGetLocalIpv4(uint32_t selector, char *buffer);

/* ConfConfigGetLocalIpv4 for the IPv6 address. */
int32_t ConfConfigGetLocalIpv6(uint32_t selector, char *buffer);

/* Stores the device's own address as text, IPv4 for `family` 0, IPv6 for 1. Returns 0, 1 for a null
 * text or another family, or the service's result. A text of more than 1023 characters is stored as an
 * empty one. */
int32_t ConfConfigSetLocalIp(uint32_t family, const char *address);

/* Loads the device's switch file, conference/conf_config.xml in the device's configuration
 * directory: the children of its root are switches, each with a "name" and a value of at most 127
 * characters.
 *
 *     <switches><switch name="ignoreLayoutStrategy">1</switch></switches>
 *
 * All of it is loaded or nothing, once in a process: 0 when it was loaded now, or was tried before,
 * 1 when it cannot be loaded. Any thread may call this and ask for switches. */
int32_t ConfConfigXmlInit(void);

/* Copies the value of the first switch called `name`, in any letter case, into a buffer of `size`
 * bytes. Returns 0, or 1 when there is none or it does not fit. */
int32_t ConfConfigGetValueByName(const char *name, char *buffer, uint32_t size);

/* Switches of the switch file; 0 when it has no such switch, or no number for it. */

/* "isCloseWirelessCastWhenStopShare": does wireless casting end when sharing stops? */
int32_t IsCloseWirelessCast(void);

/* "isStopCastWhenConfEnd": does casting stop with the conference? */
int32_t IsStopCastWhenConfEnd(void);

/* "forbiddenSdkStopWirelessCast": is the SDK kept from stopping wireless casting? */
int32_t IsForbiddenSdkStopWirelessCast(void);

/* "onlyReportPresentationDevicePlug": is only a presentation device reported when it is plugged in?
 */
int32_t OnlyReportPresentationDevicePlug(void);

/* "ignoreLayoutStrategy": is the layout strategy ignored? */
int32_t IgnoreLayoutStrategy(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(ConfConfigListItem, value) == 128, "");
static_assert(sizeof(ConfConfigListItem) == 1152, "");
static_assert(offsetof(ConfConfigOmBatch, capacity) == 4, "");
static_assert(offsetof(ConfConfigOmBatch, records) == 8, "");
static_assert(sizeof(ConfConfigOmBatch) == (sizeof(void *) == 4 ? 12 : 16), "");
#endif
