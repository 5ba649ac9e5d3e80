/* Checks and small conversions of texts that come from users, configuration and peers.
 *
 * 1. A check returns 0 when the text passes and 1 when it does not, and logs nothing.
 * 2. A null text never passes.
 * 3. No state: any thread may call.
 *
 *     if (ConfParamCheckValidIp(text) != 0)
 *         return refuse("not an address"); */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* 0 when every character is a digit (`digitsOnly` not 0), or printable ASCII other than '"', '[',
 * '\' and ']' (`digitsOnly` 0); 1 for another character and for a null or empty text. */
uint32_t ConfParamCheckContainValidChar(const char *text, uint32_t digitsOnly);

/* 0 when the text is an IPv4 or IPv6 address, else 1. */
uint32_t ConfParamCheckValidIp(const char *text);

/* The family of an address text: 2 for IPv4, the platform's IPv6 family number for IPv6, -1 when it
 * is no address. */
int32_t ConfParamCheckIpType(const char *text);

/* The number of UTF-8 characters that start within the first `byteLength` bytes. A NUL does not end
 * the count and nothing behind is read; a stray continuation byte counts as a character. 0 for
 * null. */
uint32_t ConfParamGetCharNum(const char *text, uint32_t byteLength);

/* The whole text as a signed 32-bit number: decimal, hexadecimal after "0x", octal after "0", with
 * leading white space and a sign allowed. `defaultValue`, with an error record, when the text is
 * not entirely such a number. */
int32_t ConfGetAtoi(const char *text, int32_t defaultValue);

/* Removes leading and trailing white space in place, from a text of up to 65,535 characters. A text
 * that is null or ends up empty is recorded as an error; a longer one is left alone with such a
 * record. */
void ConfTrim(char *text);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
