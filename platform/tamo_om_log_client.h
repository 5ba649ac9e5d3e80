/* libtamo_om_log_client: the log service of the platform.
 *
 * 1. A process initialises the client once, creates its log file once and then writes records to
 *    it.
 * 2. Results are 0 for success and another value for failure, unless an operation says otherwise.
 * 3. Records may be written from any thread at any time, also before a file was created: the client
 *    then takes the file id 0 and may drop the record or keep it elsewhere.
 * 4. Text arrives as its author formatted it. The client masks nothing, and keeps one record from
 *    looking like two. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* What a log file may grow to. Zeroed before it is filled. */
typedef struct OmLogCreateParam {
    uint32_t recordSize; /* longest record text in bytes */
    uint32_t fileCount;  /* files kept, the current one included */
    uint32_t fileSize;   /* bytes in a file before the next one is begun */
    char name[32];       /* file name without a path, NUL-terminated */
} OmLogCreateParam;

/* Connects the process to the log service. `mode` is "C" and `flag` 1 for a client of this kind.
 * Called again after success it succeeds without a second connection. */
int32_t TamoOmLogClientInit(const char *mode, uint32_t flag);

/* Ends the connection. Records written later are treated like those written before the start. */
int32_t TamoOmLogClientUnInit(void);

/* Opens or creates the file that `param` names and stores its id in `logFileId`; on failure the id
 * stays as it was. The client copies `param`. A file that exists is continued. */
int32_t TamoOmLogCreateLog(const OmLogCreateParam *param, uint16_t *logFileId);

/* Writes one record: a printf-style `format` with its arguments, at `level` (1 error, 2 warning, 3
 * info, 4 debug), from `line` of the unit `fileName`, whose length modulo 256 is `fileNameLength`.
 * The record is in the file when the call returns 0. Must not allocate, and must not call back into
 * its caller. */
int32_t TamoOmLogModuleLogRecord(uint8_t level, uint16_t logFileId, const char *fileName,
                                 uint8_t fileNameLength, int32_t line, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 6, 7)))
#endif
    ;

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(OmLogCreateParam, fileCount) == 4);
static_assert(offsetof(OmLogCreateParam, fileSize) == 8);
static_assert(offsetof(OmLogCreateParam, name) == 12);
static_assert(sizeof(OmLogCreateParam) == 44);
#endif
