/* The local address from which traffic to a destination leaves. inet_ntop writes to the caller's buffer
 * directly: it leaves a buffer alone that the text does not fit. */
#include "include/conf_network_utils.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common/log.h"
#include "common/platform_block.h"
#include "platform/bounds_checked.h"
#include "platform/ip_helper.h"
#include "platform/tamo_socket.h"

namespace {

constexpr char kUnit[] = "conf_network_utils";

constexpr int32_t kFamilyIpv6 = 23;
/* Skip multicast, DNS servers and friendly names; include prefixes and all interfaces. */
constexpr uint32_t kAdapterFlags = 0x4 | 0x8 | 0x10 | 0x20 | 0x100;
constexpr uint32_t kFirstAdapterBytes = 15000;
constexpr int kAdapterCalls = 3;
constexpr uint32_t kFirstTableBytes = 28;

/* ---- IPv6 ---- */

PlatformBlock<IpAdapter> noAdapters() {
    return PlatformBlock<IpAdapter>(nullptr, BlockRelease{kUnit, __LINE__});
}

/* All adapters with their IPv6 addresses; null when the system does not tell. */
PlatformBlock<IpAdapter> readAdapters() {
    uint32_t size = kFirstAdapterBytes;
    for (int call = 0; call < kAdapterCalls; call++) {
        auto adapters = takeBlock<IpAdapter>(size, kUnit);
        if (adapters == nullptr) {
            break;
        }
        const uint32_t result =
            GetAdaptersAddresses(kFamilyIpv6, kAdapterFlags, nullptr, adapters.get(), &size);
        if (result == 0) {
            return adapters;
        }
        if (result != IP_HELPER_ADAPTERS_TOO_SMALL) {
            break;
        }
    }
    return noAdapters();
}

/* The bytes of an address that may be chosen; null for a missing one, and for one that is or might be
 * of a link or a site only: either of the first two bytes of fe80 tells. */
const uint8_t *usableAddress(const IpUnicastAddress &unicast) {
    if (unicast.address == nullptr) {
        return nullptr;
    }
    const uint8_t *bytes =
        reinterpret_cast<const sockaddr_in6 *>(unicast.address)->sin6_addr.s6_addr;
    return bytes[0] == 0xFE || bytes[1] == 0x80 ? nullptr : bytes;
}

/* Writes the first usable address of an adapter that fits; false when there is none. */
bool writeAdapterAddress(const IpAdapter &adapter, char *out, uint32_t outSize) {
    for (const IpUnicastAddress *unicast = adapter.firstUnicast; unicast != nullptr;
         unicast = unicast->next) {
        const uint8_t *bytes = usableAddress(*unicast);
        if (bytes != nullptr && inet_ntop(AF_INET6, bytes, out, outSize) != nullptr) {
            return true;
        }
    }
    return false;
}

uint32_t bestLocalIpv6(const uint8_t (&destination)[16], char *out, uint32_t outSize) {
    IpSocketAddress6 address = {};
    address.family = kFamilyIpv6;
    static_assert(sizeof(address.address) == sizeof(destination));
    if (memcpy_s(address.address, sizeof(address.address), destination, sizeof(destination)) != 0) {
        return 1;
    }
    uint32_t interfaceIndex = 0;
    if (GetBestInterfaceEx(&address, &interfaceIndex) != 0) {
        return 1;
    }
    const PlatformBlock<IpAdapter> adapters = readAdapters();
    for (const IpAdapter *adapter = adapters.get(); adapter != nullptr; adapter = adapter->next) {
        if (adapter->ipv6InterfaceIndex == interfaceIndex &&
            writeAdapterAddress(*adapter, out, outSize)) {
            return 0;
        }
    }
    return 1;
}

/* ---- IPv4 ---- */

/* The system's IPv4 addresses; null when it does not tell. */
PlatformBlock<IpAddrTable> readAddresses() {
    uint32_t size = 0;
    auto table = takeBlock<IpAddrTable>(kFirstTableBytes, kUnit);
    if (table == nullptr || GetIpAddrTable(table.get(), &size, 0) != IP_HELPER_TABLE_TOO_SMALL) {
        table.reset();
        return table;
    }
    table.reset();
    table = takeBlock<IpAddrTable>(size, kUnit);
    if (table != nullptr && GetIpAddrTable(table.get(), &size, 0) != 0) {
        table.reset();
    }
    return table;
}

/* Does the address lie in the network towards which the route leads? */
bool isTowards(const IpForwardRow &route, const IpAddrRow &row) {
    return route.nextHop != 0 ? ((row.address ^ route.nextHop) & row.mask) == 0
                              : ((row.address ^ route.destination) & route.mask) == 0;
}

/* The address of the route's interface that lies towards it, else the interface's first, else null. */
const IpAddrRow *chooseAddress(const IpForwardRow &route, const IpAddrTable &table) {
    const IpAddrRow *first = nullptr;
    for (uint32_t i = 0; i < table.count; i++) {
        const IpAddrRow &row = table.rows[i];
        if (row.interfaceIndex != route.interfaceIndex) {
            continue;
        }
        if (isTowards(route, row)) {
            return &row;
        }
        first = first == nullptr ? &row : first;
    }
    return first;
}

uint32_t bestLocalIpv4(uint32_t destination, char *out, uint32_t outSize) {
    IpForwardRow route = {};
    if (GetBestRoute(destination, 0, &route) != 0) {
        return 1;
    }
    const PlatformBlock<IpAddrTable> table = readAddresses();
    if (table == nullptr) {
        return 1;
    }
    const IpAddrRow *row = chooseAddress(route, *table);
    if (row == nullptr) {
        return 1;
    }
    return inet_ntop(AF_INET, &row->address, out, outSize) != nullptr ? 0 : 1;
}

}  // namespace

uint32_t GetBestLocalIpByDestIp(const char *destination, char *out, uint32_t outSize) {
    const bool empty = destination == nullptr || *destination == '\0';
    if (empty || out == nullptr || outSize == 0) {
        CONF_LOG(CONF_LOG_ERROR, "GetBestLocalIpByDestIp param error!");
        return 1;
    }
    uint8_t address[16] = {};
    if (KIRU_Inet_Pton(kFamilyIpv6, destination, address) == 1) {
        return bestLocalIpv6(address, out, outSize);
    }
    return bestLocalIpv4(KIRU_InetAddr(destination), out, outSize);
}
