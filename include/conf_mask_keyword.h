/* Masking: asterisks in the place of what a log must not show.
 *
 * 1. Logging masks nothing. Mask a value first and log the copy.
 * 2. Results are 0 for success and 1 for failure, which is not logged unless a function says so.
 * 3. A masked copy lies in the caller's buffer, of which every byte behind the text is zero. Such
 *    a buffer has at least CONF_MASK_SIZE bytes.
 * 4. No lock and no state but the address that ConfFilterSetIPStr registers: register it at
 *    start-up, then any thread may call.
 *
 * What a span of n characters keeps: up to 3 characters all; 4 and 5 all but the last but one; 6
 * and 7 lose the three in front of the last two, 8 to 10 the four in front of them; longer ones keep
 * the first three and the last two. The length never changes.
 *
 *     char shown[CONF_MASK_SIZE];
 *     if (ConfFilterStr(userName, shown, sizeof(shown)) == 0)
 *         ConfLogPrintf(CONF_LOG_INFO, __func__, "my_unit", __LINE__, "user %s", shown); */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The smallest buffer for a masked copy, in bytes. */
enum { CONF_MASK_SIZE = 129 };

/* A filter of the caller's, with three arguments of a pointer's size. */
typedef uintptr_t (*ConfFilterFn)(uintptr_t a, uintptr_t b, uintptr_t c);

/* Registers the address that ConfReplaceIPAddrStr masks, a text of at most 44 characters (copied);
 * an empty one clears it. A null or longer text is refused and the registered one stays. */
uint32_t ConfFilterSetIPStr(const char *address);

/* Masks a text: up to 10 characters as a span, a longer one as its first three characters, six
 * asterisks and its last two, so that its length does not show ("192.168.1.10" becomes
 * "192******10"). 1 for a null argument, or a buffer below CONF_MASK_SIZE, which is left alone. */
uint32_t ConfFilterStr(const char *src, char *dst, uint32_t dstSize);

/* Masks an address but for its ends: "192.168.1.10" becomes "192.**.**.10", "fe80::1:2:3" becomes
 * "fe80:****:2:3". What is no IPv4 or IPv6 address, or has fewer than four groups or one that is
 * too long, is masked as by ConfFilterStr; only the failure of that is logged. */
uint32_t ConfFilterIPAddrStr(const char *src, char *dst, uint32_t dstSize);

/* Masks, in place, each value that follows `key` in a text and ends at `endMark`, as a span. A value
 * does not go on behind a carriage return: with the key "tel:" it ends there, with any other one it
 * is left alone. With a key that contains "-eid" the value is a list separated by ";", and each of
 * its parts is masked by itself; separators up to the end of the line count, so that a part may reach
 * beyond the end mark. Costs no more than reading the text a few times, however often the key
 * occurs. Nothing happens for a null argument or an empty key.
 *
 *     char line[] = "To: <tel:5550123>";
 *     ConfFilterNonSecurityWordEx(line, "tel:", ">"); // now "To: <tel:55***23>" */
void ConfFilterNonSecurityWordEx(char *text, const char *key, const char *endMark);

/* Masks the characters from `begin` up to `end`, in place, as a span. Nothing happens when `begin` is
 * null or `end` is not behind it. */
void ConfFilterNonSecurityWordExImpl(char *begin, char *end);

/* Copies a text with each occurrence of the registered address masked as by ConfFilterIPAddrStr.
 * `*out` is a new block, which the caller releases with OSMemTypeFreeMon, and `*outLength` the
 * length of the text in it. A block has room for 100 characters more than the text; where masked
 * addresses grow it beyond that, the copy ends at the address that does not fit, or behind the one
 * after which the rest does not. The time is linear in the length of the text. 1 for a null
 * argument, an empty text, a registered address of less than 7 characters, no memory (`*out` is then
 * null), or a refused copy: begin with a null `*out`, and release what is there after any result.
 *
 *     char *masked = NULL;
 *     uint32_t length = 0;
 *     if (ConfReplaceIPAddrStr(trace, &masked, &length) == 0)
 *         ConfLogPrintfStr(CONF_LOG_INFO, __func__, "my_unit", __LINE__, masked);
 *     if (masked != NULL)
 *         OSMemTypeFreeMon(masked, 0, 0, __LINE__, "my_unit"); */
uint32_t ConfReplaceIPAddrStr(const char *text, char **out, uint32_t *outLength);

/* Calls `filter`, which is not checked, with the three arguments, and returns its result. */
uintptr_t ConfFilterCallFilterFn(ConfFilterFn filter, uintptr_t a, uintptr_t b, uintptr_t c);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
