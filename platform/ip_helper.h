/* The system's IP helper: four questions about routes and addresses.
 *
 * 1. Results are 0 for success, 111 (adapters) or 122 (address table) when a buffer is too small, and
 *    another value for any other failure.
 * 2. IPv4 addresses and masks are in network byte order.
 * 3. Any thread may call; nothing is kept between calls that a caller could see. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct sockaddr;

enum { IP_HELPER_ADAPTERS_TOO_SMALL = 111, IP_HELPER_TABLE_TOO_SMALL = 122 };

/* A route. `nextHop` is 0 for destinations on the link. */
typedef struct IpForwardRow {
    uint32_t destination, mask, nextHop, interfaceIndex;
} IpForwardRow;

/* An address of an interface. */
typedef struct IpAddrRow {
    uint32_t address, interfaceIndex, mask;
} IpAddrRow;

/* `count` addresses. */
typedef struct IpAddrTable {
    uint32_t count;
    IpAddrRow rows[];
} IpAddrTable;

/* One unicast address of an adapter: the system's own sockaddr_in6, or null. */
typedef struct IpUnicastAddress {
    struct IpUnicastAddress *next;
    struct sockaddr *address;
} IpUnicastAddress;

/* One adapter. */
typedef struct IpAdapter {
    struct IpAdapter *next;
    uint32_t ipv6InterfaceIndex;
    IpUnicastAddress *firstUnicast;
} IpAdapter;

/* An IPv6 destination; the family is 23, everything but the address 0. */
typedef struct IpSocketAddress6 {
    uint16_t family, port;
    uint32_t flowInfo;
    uint8_t address[16];
    uint32_t scope;
} IpSocketAddress6;

/* The interface from which packets to the destination leave; fails when there is no route to it. */
uint32_t GetBestInterfaceEx(const IpSocketAddress6 *destination, uint32_t *interfaceIndex);

/* The adapters that have addresses of a family (23) with these addresses, as a list that begins at
 * `buffer` and lies in its `*size` bytes. An adapter's addresses come in the order of preference; those
 * that nothing can be sent from are left out. When the bytes do not suffice, `*size` becomes what does
 * and the result 111. `flags` choose what else is told on other systems; `reserved` is null. */
uint32_t GetAdaptersAddresses(uint32_t family, uint32_t flags, void *reserved, IpAdapter *buffer,
                              uint32_t *size);

/* The route to an IPv4 destination; `source` is 0. Fails when there is none, as for 255.255.255.255. */
uint32_t GetBestRoute(uint32_t destination, uint32_t source, IpForwardRow *route);

/* The IPv4 addresses of all interfaces, in `*size` bytes; when they do not suffice, `*size` becomes what
 * does and the result 122. `sorted` 0 leaves the system's order, anything else sorts by address. */
uint32_t GetIpAddrTable(IpAddrTable *table, uint32_t *size, int32_t sorted);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(sizeof(IpForwardRow) == 16);
static_assert(sizeof(IpAddrRow) == 12);
static_assert(offsetof(IpAddrTable, rows) == 4);
static_assert(offsetof(IpAdapter, ipv6InterfaceIndex) == (sizeof(void *) == 4 ? 4 : 8));
static_assert(offsetof(IpAdapter, firstUnicast) == (sizeof(void *) == 4 ? 8 : 16));
static_assert(offsetof(IpUnicastAddress, address) == (sizeof(void *) == 4 ? 4 : 8));
static_assert(offsetof(IpSocketAddress6, address) == 8);
static_assert(sizeof(IpSocketAddress6) == 28);
#endif
