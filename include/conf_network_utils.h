/* The choice of a local address.
 *
 *     char local[46];
 *     if (GetBestLocalIpByDestIp("192.0.2.7", local, sizeof(local)) == 0) ...
 */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Writes the address from which packets to `destination`, an IPv4 or IPv6 address text, leave this host
 * to `out` as text: 0, or 1, with `out` as it was, when there is none or it does not fit `outSize` bytes
 * (46 hold any). For IPv6, link-local addresses are never chosen. Only missing arguments, an empty
 * destination among them, are recorded. Any thread may call; the routes and addresses are asked for
 * anew each time. */
uint32_t GetBestLocalIpByDestIp(const char *destination, char *out, uint32_t outSize);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
