/* libtamo_socket: address texts.
 *
 * Families are the device's numbers: 2 is IPv4 and 23 is IPv6, whatever numbers the system's own
 * socket calls use. No state: any thread may call. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Writes the binary form of an address text to a buffer of 16 bytes (the first 4 for IPv4, the rest
 * stay as they were): 1 when the text is a valid address of the family, 0 when not (a null text
 * too), -1 for any other family or a null buffer. */
int32_t KIRU_Inet_Pton(int32_t family, const char *text, void *buffer16);

/* A dotted IPv4 address as a number in network byte order; 0xFFFFFFFF for anything else. */
uint32_t KIRU_InetAddr(const char *text);

/* The number of the IPv6 family in the system's own socket calls. */
int32_t MOX_Socket_Get_AF_INET6(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
