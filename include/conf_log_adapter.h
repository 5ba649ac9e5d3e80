/* Logging: the one log call of the library and of the modules around it.
 *
 * 1. A record has a level; it is written when its level is at most the process's filter, which
 *    starts at 3 (CONF_LOG_INFO). A suppressed record costs one comparison and formats nothing.
 * 2. A record goes to "Conference.log" through the platform's log client. Nothing is masked here:
 *    mask sensitive values before you log them.
 * 3. Writing allocates nothing and reports nothing; a record that cannot be formatted in 511
 *    characters is dropped whole, never cut.
 * 4. Any thread may log at any time. ConfLogInit, ConfLogUnInit and SetLogLevel are for the hosting
 *    process.
 *
 *     ConfLogInit();
 *     ConfLogPrintf(CONF_LOG_INFO, __func__, "my_unit", __LINE__, "joined with %u sites", sites);
 *     ConfLogUnInit(); */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Levels: the lower, the more severe. A filter of 0 silences the library. */
enum {
    CONF_LOG_ERROR = 1,   /* failures */
    CONF_LOG_WARNING = 2, /* reported, then ignored */
    CONF_LOG_INFO = 3,    /* notable operations; passes the default filter */
    CONF_LOG_DEBUG = 4    /* detail; suppressed by the default filter */
};

/* Connects to the log service and opens "Conference.log" (9 files of 10 MiB, records of 512 bytes).
 * Call it once, before the rest of the library. 0 on success, else the first failing step's
 * non-zero result; records then still go to the log client, under file id 0. */
int32_t ConfLogInit(void);

/* Disconnects from the log service; always 0. The file id and the filter stay. */
int32_t ConfLogUnInit(void);

/* The log client's 16-bit id of the open file; 0 before ConfLogInit. */
uint32_t GetConfLogFileId(void);

/* The level filter of the process. */
uint8_t GetLogLevel(void);

/* Sets the level filter, 0 to 4: 0 on success, -1 for any other level, which changes nothing.
 * Applies to records begun afterwards. */
int32_t SetLogLevel(uint8_t level);

/* Writes one record, "[functionName]" followed by the printf-style text. `fileName` is the base
 * name of the logging source unit and `line` the line of the call; the texts are only read during
 * the call. A null `fileName` or `format` writes nothing. */
void ConfLogPrintf(uint8_t level, const char *functionName, const char *fileName, int32_t line,
                   const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 5, 6)))
#endif
    ;

/* Writes a text of any length in records of at most 352 characters, cut after a line feed where one
 * is near enough. Only the first piece carries "[functionName]". A null or empty text writes
 * nothing. */
void ConfLogPrintfStr(uint8_t level, const char *functionName, const char *fileName, int32_t line,
                      const char *text);

/* Writes a buffer of `length` bytes under "[base name of sourcePath : line]": in one record, as a
 * NUL-terminated text, when `length` is below 400, otherwise in segments of 256 bytes, of which
 * each ends at its first NUL. Note the order of the arguments. Null pointers and a length of 0 are
 * recorded as an error. */
void ConfLogSegmentPrint(const char *sourcePath, int32_t line, uint8_t level, const char *data,
                         uint32_t length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
