/* libtamo_om_devm_client: the addresses of this machine.
 *
 * The device's networks are the machine's interfaces that are up and have an address, without the
 * loopback, in the order in which the system made them. */
#include "tamo_om_devm_client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <new>

#include "host/base/log.h"

namespace {

constexpr const char *kUnit = "tamo_om_devm_client";
constexpr size_t kBlockSize = 42;

struct ListRelease {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};
using AddressList = std::unique_ptr<ifaddrs, ListRelease>;

bool isNetworks(const ifaddrs *entry) {
    return entry->ifa_addr != nullptr && (entry->ifa_flags & IFF_UP) != 0 &&
           (entry->ifa_flags & IFF_LOOPBACK) == 0 &&
           (entry->ifa_addr->sa_family == AF_INET || entry->ifa_addr->sa_family == AF_INET6);
}

struct Address {
    unsigned network; /* the interface's index */
    const sockaddr *address;
};

/* All addresses of networks, those of one network together; null without memory. */
std::unique_ptr<Address[]> networkAddresses(const ifaddrs *list, size_t *count) {
    size_t room = 0;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        room++;
    }
    std::unique_ptr<Address[]> addresses(new (std::nothrow) Address[room]);
    *count = 0;
    for (const ifaddrs *entry = list; entry != nullptr && addresses != nullptr;
         entry = entry->ifa_next) {
        if (isNetworks(entry)) {
            addresses[(*count)++] = {if_nametoindex(entry->ifa_name), entry->ifa_addr};
        }
    }
    std::stable_sort(addresses.get(), addresses.get() + *count,
                     [](const Address &a, const Address &b) { return a.network < b.network; });
    return addresses;
}

const void *addressOf(const sockaddr *address) {
    return address->sa_family == AF_INET
               ? static_cast<const void *>(
                     &reinterpret_cast<const sockaddr_in *>(address)->sin_addr)
               : &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
}

bool isLinkLocal(const sockaddr *address) {
    return address->sa_family == AF_INET6 &&
           IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr);
}

/* The first address of a family in the network number `selector`, one that is not link-local before
 * one that is. */
const sockaddr *findAddress(const ifaddrs *list, uint32_t selector, int family) {
    const sockaddr *found = nullptr;
    uint64_t networks = 0;
    unsigned network = 0;
    size_t count = 0;
    const std::unique_ptr<Address[]> addresses = networkAddresses(list, &count);
    for (size_t i = 0; i < count; i++) {
        const Address &each = addresses[i];
        networks += each.network != network ? 1 : 0;
        network = each.network;
        if (networks != uint64_t{selector} + 1 || each.address->sa_family != family) {
            continue;
        }
        if (!isLinkLocal(each.address)) {
            return each.address;
        }
        found = found == nullptr ? each.address : found;
    }
    return found;
}

int32_t writeBlock(int family, uint32_t selector, char *block) {
    if (block == nullptr) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__,
                         "an address was asked for without a buffer");
        return -1;
    }
    ifaddrs *first = nullptr;
    if (getifaddrs(&first) != 0) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__, "the interfaces cannot be listed (%s)",
                         strerror(errno));
        return -1;
    }
    const AddressList list(first);
    const sockaddr *found = findAddress(first, selector, family);
    char text[INET6_ADDRSTRLEN] = {};
    if (found == nullptr || inet_ntop(family, addressOf(found), text, sizeof(text)) == nullptr ||
        strlen(text) >= kBlockSize) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__,
                         "network %u has no %s address: bring an interface up or give it one with "
                         "'ip address add'",
                         selector, family == AF_INET ? "IPv4" : "IPv6");
        return -1;
    }
    memset(block, 0, kBlockSize);
    memcpy(block, text, strlen(text));
    return 0;
}

}  // namespace

int32_t TamoOmDevmNetGetIpv4Block(uint32_t selector, char *buffer42) {
    return writeBlock(AF_INET, selector, buffer42);
}

int32_t TamoOmDevmNetGetIpv6Block(uint32_t selector, char *buffer42) {
    return writeBlock(AF_INET6, selector, buffer42);
}
