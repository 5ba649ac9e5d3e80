/* The workstation host's own operations: what a program needs there beyond the platform libraries.
 *
 * 1. Results are 0 for success and a TAMO_HOST_ code for failure, unless an operation says
 *    otherwise; each failure also leaves a record in the process's log file, or on standard error
 *    before one is open, that says what to do. There is none for TAMO_HOST_TIMEOUT, for a device root
 *    that was found unusable before, and for the configuration once the program ends.
 * 2. Nothing here exists on a terminal: keep its use to a program's main loop and tools.
 * 3. Files and sockets lie below the device root: the directory that TAMO_DEVICE_ROOT names when a
 *    process first needs it, else "tamo" in the user's data directory. It is created private, and
 *    one that other users may enter is refused. */
#pragma once
#include <stdint.h>

#include "tamo_om_config_client.h"
#include "tamo_os_msg.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
    TAMO_HOST_OK = 0,
    TAMO_HOST_INVALID = 1,     /* a null or out-of-range argument */
    TAMO_HOST_NO_ROOT = 2,     /* the device root cannot be used */
    TAMO_HOST_IN_USE = 3,      /* the queue name is served by a live process */
    TAMO_HOST_TIMEOUT = 4,     /* nothing came in time */
    TAMO_HOST_NO_RECEIVER = 5, /* nobody serves the queue name */
    TAMO_HOST_QUEUE_FULL = 6,  /* the receiver does not keep up */
    TAMO_HOST_GONE = 7,        /* the other side ended or gave up */
    TAMO_HOST_REFUSED = 8,     /* the other side may not, or cannot, take this message */
    TAMO_HOST_TOO_LARGE = 9,   /* more than a message carries */
    TAMO_HOST_NO_MEMORY = 10,
    TAMO_HOST_SYSTEM = 11,   /* a system call failed; the record says which */
    TAMO_HOST_NOT_FOUND = 12 /* the service has no value of a key */
};

/* ---- receiving messages ---- */

/* A named queue that this process serves. */
typedef struct TamoHostQueue TamoHostQueue;

/* Begins to serve a queue name of 1 to 15 characters (letters, digits, '.', '_', '-'). Refused with
 * TAMO_HOST_IN_USE while a live process serves it; what a dead one left is taken over. */
uint32_t TamoHostMsgOpen(const char *name, TamoHostQueue **queue);

/* A descriptor that polls readable when TamoHostMsgReceive has something to do, or -1. It stays the
 * queue's. To be called by the thread that receives. */
int TamoHostMsgDescriptor(TamoHostQueue *queue);

/* Waits up to `timeoutMs` (0: does not wait, negative: for ever) for the next message and hands it
 * out, for ConfCommMsgProcess and then TamoHostMsgFree. TAMO_HOST_TIMEOUT when none came. Senders
 * are served in turn. One thread at a time receives from a queue; the messages may be processed and
 * freed on other threads. Messages whose handler is in no module that this process has loaded are
 * refused, with a record; a linker leaves out a library of handlers of which the program itself calls
 * nothing, unless told -Wl,--no-as-needed.
 *
 *     OsMsgHeader *message;
 *     while (TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
 *         ConfCommMsgProcess(message);
 *         TamoHostMsgFree(message);
 *     } */
uint32_t TamoHostMsgReceive(TamoHostQueue *queue, OsMsgHeader **message, int32_t timeoutMs);

/* Releases a received message, null allowed. A sender that still waits for its response fails at
 * once; a result buffer that no response took along is released. */
void TamoHostMsgFree(OsMsgHeader *message);

/* Ends serving the name. Whoever waits for the response to a message that was not handed out fails at
 * once. Messages handed out stay valid until they are freed, and may still be answered. Null is
 * ignored. */
void TamoHostMsgClose(TamoHostQueue *queue);

/* How many classes of service times there are. */
enum { TAMO_HOST_SERVICE_BUCKETS = 40 };

/* What is known of one queue name. The counts of one that nobody serves any more are 0 once its senders
 * have found out. */
typedef struct TamoHostQueueInfo {
    char name[16];
    uint32_t ownerPid;   /* 0 when nobody serves it any more */
    uint64_t received;   /* messages taken out since it was opened */
    uint64_t depth;      /* messages sent and not yet taken out */
    uint64_t depthBytes; /* bytes of their bodies */
    /* Service times: from when a message was handed out until it was answered, or freed when it was not.
     * Class 0 counts messages that took no measurable time, class i those of 2^(i-1) to 2^i - 1
     * nanoseconds, the last class those of all longer times. Every fifth message is measured, beginning
     * with the first since the queue was opened. */
    uint64_t served[TAMO_HOST_SERVICE_BUCKETS];
} TamoHostQueueInfo;

/* Calls `visit` for every queue name below the device root, in order of name, until it returns
 * other than 0; that value is returned. */
uint32_t TamoHostMsgQueues(uint32_t (*visit)(const TamoHostQueueInfo *queue, void *context),
                           void *context);

/* ---- looking on at messages ---- */

typedef enum TamoHostTraceKind {
    TAMO_HOST_TRACE_SENT = 1,      /* by the sender, into the queue */
    TAMO_HOST_TRACE_RECEIVED = 2,  /* by the receiver, out of the queue */
    TAMO_HOST_TRACE_REFUSED = 3,   /* by the receiver; `result` says why, as a TAMO_HOST_ code */
    TAMO_HOST_TRACE_RESPONDED = 4, /* by the receiver; `result` is the handler's */
    TAMO_HOST_TRACE_ANSWERED = 5,  /* the sender has the response; `result` is the handler's */
    TAMO_HOST_TRACE_FAILED = 6     /* the sender gives up; `result` is its TAMO_HOST_ code */
} TamoHostTraceKind;

/* What became of a message. Texts end with a zero, and hold what their process made of them. */
typedef struct TamoHostTraceEvent {
    int64_t timeUs;         /* since 1970 */
    uint64_t durationNs;    /* of an answered or failed message, since its sending began; else 0 */
    uint64_t handlerOffset; /* from the beginning of `module` */
    uint32_t kind;          /* a TamoHostTraceKind */
    uint32_t pid;           /* the process and thread that this happened in */
    uint32_t tid;
    uint32_t peerPid; /* the receiver's events: the sender's process; else 0 */
    uint32_t serial;  /* same for the events of one message of one thread to one queue; 0: none */
    uint32_t param;   /* the handler's parameter */
    uint32_t bodyLength; /* of the message, or of the response where there is one */
    uint32_t listLength; /* of the response's result list */
    uint32_t result;
    uint32_t unused;
    char queue[16];
    char process[16]; /* name of the program */
    char module[32];  /* file name of the handler's module; empty: there is no handler */
} TamoHostTraceEvent;

/* Looks on at the messages of all processes of the device root. */
typedef struct TamoHostTrace TamoHostTrace;

/* Begins to look on: events from now on are seen. */
uint32_t TamoHostTraceOpen(TamoHostTrace **trace);

/* Waits up to `timeoutMs` (0: does not wait, negative: for ever) for the next event.
 * TAMO_HOST_TIMEOUT when none came. `*missed` is how many events were lost before it, as they came
 * faster than they were read. Whoever does not call for 10 seconds may miss later events uncounted. One thread at
 * a time uses a trace. */
uint32_t TamoHostTraceNext(TamoHostTrace *trace, int32_t timeoutMs, TamoHostTraceEvent *event,
                           uint64_t *missed);

/* Ends looking on. Null is ignored. */
void TamoHostTraceClose(TamoHostTrace *trace);

/* ---- configuration service ---- */

/* Calls `visit` for every stored key that matches the shell pattern `glob` (null: all), in order of
 * key, as of one moment, until it returns other than 0; that value is returned. */
uint32_t TamoHostConfigList(const char *glob,
                            uint32_t (*visit)(const char *key, const char *value, void *context),
                            void *context);

/* Removes the values of `count` keys in one transaction, which to others is one write: all of them, or
 * none. A removed key reads as one that never had a value; those who hear of changes are told an empty
 * value of it. TAMO_HOST_NOT_FOUND, unrecorded, when one of the keys had none; the others' are removed
 * all the same. */
uint32_t TamoHostConfigReset(const char *const *keys, uint32_t count);

/* Examines the store without making, moving or mending anything. TAMO_HOST_NOT_FOUND when nothing was
 * stored yet; TAMO_HOST_REFUSED when the store is damaged or the file is another program's, which the
 * next to open it would set aside: `fault` (null allowed), a buffer of `size` bytes, then holds its
 * path and what is wrong with it, else an empty text. Only an unusable device root is recorded. */
uint32_t TamoHostConfigCheck(char *fault, uint32_t size);

/* A key and its value. */
typedef struct TamoHostConfigPair {
    const char *key;   /* 1 to 127 bytes */
    const char *value; /* at most 1023 bytes */
} TamoHostConfigPair;

/* Stores `count` values in one transaction, which to others is one write: all of them, or none. Of
 * several values of a key the last counts. With `replace` other than 0 every other key is removed;
 * those who hear of changes are told an empty value of it. `progress` (null allowed) is called now and
 * then with the number of values done so far, and must not use the store; it may begin again once,
 * when another store has come in place. */
uint32_t TamoHostConfigImport(const TamoHostConfigPair *pairs, uint32_t count, uint8_t replace,
                              void (*progress)(uint32_t done, void *context), void *context);

/* A watch of all changes of stored values. It is used by one thread at a time; a child of fork does
 * not use its parent's. */
typedef struct TamoHostConfigWatch TamoHostConfigWatch;

/* One key that a write changed. */
typedef struct TamoHostConfigChange {
    const char *key;
    const char *value;  /* the new one; empty when the key was removed */
    int64_t timeUs;     /* of the write, microseconds since 1970 */
    const char *writer; /* the name of the process that wrote, and its id */
    uint32_t writerPid;
    uint8_t isAll; /* 1: changes were missed (see below), this is one of all keys as they stand */
    uint8_t isRemoved; /* 1: the key has no value any more */
} TamoHostConfigChange;

/* Begins to watch: every write from now on is shown, those of this process too. */
uint32_t TamoHostConfigWatchOpen(TamoHostConfigWatch **watch);

/* Waits up to `timeoutMs` (0: does not wait, negative: for ever) for the next write and calls `visit`
 * for each key whose value it changed, until it returns other than 0; that value is returned.
 * TAMO_HOST_TIMEOUT when nothing was written. Writes come one by one and in order. A watch that has
 * fallen 4 MiB of keys and values behind, or finds another store in place, is shown all keys as they
 * stand instead of what it missed. What is shown is valid until `visit` returns; it may use the store. */
uint32_t TamoHostConfigWatchNext(TamoHostConfigWatch *watch, int32_t timeoutMs,
                                 uint32_t (*visit)(const TamoHostConfigChange *change,
                                                   void *context),
                                 void *context);

/* Ends a watch. Null is ignored. */
void TamoHostConfigWatchClose(TamoHostConfigWatch *watch);

/* ---- key management ---- */

/* Decrypts what TamoOmKeymEncrypt made for the same owner into `out` and terminates it;
 * `*outLength` holds the buffer's size before and the text's length after. TAMO_HOST_REFUSED when
 * the text is not genuine. */
uint32_t TamoHostKeymDecrypt(const char *ownerName, const char *encrypted, char *out,
                             uint32_t *outLength);

/* ---- memory ---- */

/* Blocks that one statement took and that were not released yet. */
typedef struct TamoHostMemSite {
    char file[48];
    uint32_t line;
    uint64_t blocks, bytes;
} TamoHostMemSite;

/* Calls `visit` for every site with outstanding blocks of process `pid` (0: this one), largest
 * first. TAMO_HOST_NO_RECEIVER when no such process uses the memory layer below this device root.
 */
uint32_t TamoHostMemReport(uint32_t pid,
                           uint32_t (*visit)(const TamoHostMemSite *site, void *context),
                           void *context);

/* ---- the certificate service's store ---- */

/* What is installed: server certificates with their keys, trusted CA certificates, revocation lists. */
enum { TAMO_HOST_CERT_SERVER = 0, TAMO_HOST_CERT_CA = 1, TAMO_HOST_CERT_CRL = 2 };

/* One server certificate: NUL-terminated PEM texts of at most 1 MiB each. */
typedef struct TamoHostCertServer {
    uint32_t certId;        /* 257 to 266 */
    const char *chain;      /* the server's own certificate first */
    const char *key;        /* the private key of that certificate */
    const char *passphrase; /* what opens the key, a line of 1 to 63 bytes; null: not encrypted */
    const char *extra;      /* the second part, certificates 259 and 260 only; null: none */
    uint32_t extraSize;     /* bytes of `extra`, at most 1 MiB */
    uint8_t inEngine;       /* other than 0: the key stays in the engine */
} TamoHostCertServer;

/* One CA certificate or revocation list. */
typedef struct TamoHostCertFile {
    const char *source; /* the name of the file that it comes from, without a directory */
    const char *text;   /* NUL-terminated PEM of at most 1 MiB */
    char name[256];     /* set: the name under which it is installed, which readers go by */
} TamoHostCertFile;

/* One thing that is installed. */
typedef struct TamoHostCertEntry {
    uint32_t kind;
    const char *name;  /* the certificate's id, or the file's name */
    const char *path;  /* the native path of its PEM file */
    int64_t keptUntil; /* seconds since 1970 until which a replaced server certificate stays at the
                        * least, for programs that were told its paths; 0: it is in use */
    uint8_t inEngine;  /* other than 0: its key is the engine's */
} TamoHostCertEntry;

/* The operations that change the store do all they are asked for, or nothing. Several of them at once
 * take turns, from any thread or process. A failure is told as a sentence in `why`, a buffer of `size`
 * bytes, and is recorded where `why` is null. Running programs hear of each change. */

/* Puts a server certificate in the place of the one with its id, with its key and pass phrase at one
 * moment. What it replaces is removed at once when no program uses the service, else by the programs that
 * run, ten minutes later. */
uint32_t TamoHostCertInstall(const TamoHostCertServer *server, char *why, uint32_t size);

/* Removes a server certificate and the keys of all its versions. */
uint32_t TamoHostCertRemove(uint32_t certId, char *why, uint32_t size);

/* Installs `count` files of one kind, CA certificates or revocation lists. Files of the same name are
 * replaced. */
uint32_t TamoHostCertInstallFiles(uint32_t kind, TamoHostCertFile *files, uint32_t count, char *why,
                                  uint32_t size);

/* Removes `count` files of one kind by the names under which they are installed. */
uint32_t TamoHostCertRemoveFiles(uint32_t kind, const char *const *names, uint32_t count, char *why,
                                 uint32_t size);

/* Calls `visit` for everything that is installed, by kinds and names, and for what is replaced and still
 * kept behind what replaced it. It changes nothing, and makes nothing where there is no store. `visit`
 * must not change the store. */
uint32_t TamoHostCertList(void (*visit)(const TamoHostCertEntry *entry, void *context),
                          void *context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
