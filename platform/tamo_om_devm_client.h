/* libtamo_om_devm_client: device management, as far as the library asks it.
 *
 * 1. An address block is a buffer of 42 bytes that the caller gives. On success (0) it holds the
 *    device's own address as NUL-terminated text, and zeros behind it; on failure (another value)
 *    it is as it was.
 * 2. `selector` says which of the device's networks is meant, counted from 0; its meaning is the
 *    platform's, callers only hand it on.
 * 3. Each call tells the address of that moment. Any thread may call. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The IPv4 address, in dotted decimal. */
int32_t TamoOmDevmNetGetIpv4Block(uint32_t selector, char *buffer42);

/* The IPv6 address without a zone; a link-local one only where there is no other. */
int32_t TamoOmDevmNetGetIpv6Block(uint32_t selector, char *buffer42);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
