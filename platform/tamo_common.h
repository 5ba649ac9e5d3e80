/* libtamo_common: text services.
 *
 * 1. Texts are NUL-terminated. A null text is treated as described per operation, never read.
 * 2. No state: any thread may call. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Length of a text in bytes; 0 for null. */
uint32_t KIRU_StrLen(const char *text);

/* First occurrence of `search` in `text`; null when there is none or either is null. */
char *KIRU_StrStr(const char *text, const char *search);

/* Compares byte by byte: negative, 0 or positive. Null sorts before every text. */
int32_t KIRU_StrCmp(const char *a, const char *b);

/* The same with ASCII letters taken as their lower-case forms. */
int32_t KIRU_StriCmp(const char *a, const char *b);

/* Stores the signed decimal number that the text holds in `value` and returns 0; a text that is no
 * such number gives another result and leaves `value` as it was. */
int32_t KIRU_StrToInt32(const char *text, int32_t *value);

/* The UTF-8 form of a NUL-terminated text of 16-bit units, surrogate pairs joined and lone
 * surrogates replaced by U+FFFD. The result is released with OSMemTypeFreeMon; null when there is
 * no memory or the text is null. */
char *MOX_UnicodeToUtf8(const uint16_t *wideText);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
