/* Bounds-checked memory and string functions of the platform's runtime.
 *
 * 1. The result is 0, or a positive error code; the formatter returns the number of characters
 *    written, or -1.
 * 2. On failure nothing was written beyond the destination, and the destination is cleared: the
 *    memory functions fill it with zero bytes, the string functions make it an empty text. A null
 *    destination is left alone, and so is one whose size is 0 or above the limit.
 * 3. Sizes are in bytes, the terminating NUL included. A destination or count above 0x7FFFFFFF is
 *    refused: it is a negative number that lost its sign.
 * 4. Overlapping source and destination fail, except in memmove_s.
 * 5. No state: any thread may call. */
#pragma once
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Copies `count` bytes. */
int memcpy_s(void *dst, size_t dstSize, const void *src, size_t count);

/* Copies `count` bytes between areas that may overlap. */
int memmove_s(void *dst, size_t dstSize, const void *src, size_t count);

/* Fills `count` bytes with `value`. */
int memset_s(void *dst, size_t dstSize, int value, size_t count);

/* Copies a text with its terminator. */
int strcpy_s(char *dst, size_t dstSize, const char *src);

/* Copies at most `count` characters of a text, which need not be terminated within them, and
 * terminates the copy. */
int strncpy_s(char *dst, size_t dstSize, const char *src, size_t count);

/* Appends a text to the text in `dst`. */
int strcat_s(char *dst, size_t dstSize, const char *src);

/* Prints into `dst`; -1 when the text and its terminator do not fit. */
int sprintf_s(char *dst, size_t dstSize, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/* Scans a text as sscanf does; the formats used here take numbers only. Returns the number of
 * conversions, or -1 at the end of the text before the first. */
int sscanf_s(const char *text, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(scanf, 2, 3)))
#endif
    ;

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
