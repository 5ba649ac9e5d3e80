/* libtamo_om_keym_client: key management. Keys never leave the platform. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Encrypts `plainLength` bytes under the key of an owner (a process name). On success (0) `out`, a
 * buffer of at least 312 bytes, holds a printable NUL-terminated text that only the same owner's
 * key decrypts, and `*outLength` its length. Fails when the result would not fit, with `out` made
 * empty. The same plain text gives another result each time. Any thread may call. */
int32_t TamoOmKeymEncrypt(const char *ownerName, const char *plain, uint32_t plainLength, char *out,
                          uint32_t *outLength);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
