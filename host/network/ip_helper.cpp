/* Routes and addresses, asked of the kernel anew each time. Answers are put into the caller's buffer
 * as they are read, and only counted from where it is full: so the size that would do is known at the
 * end of the one request. */
#include "platform/ip_helper.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>

#include "host/network/netlink_request.h"

namespace {

using tamo::network::askKernel;
using tamo::network::beginRequest;
using tamo::network::NetlinkReader;
using tamo::network::NetlinkRequest;

/* Failures other than a buffer that is too small: numbers of the same family. */
constexpr uint32_t kFailed = 31;
constexpr uint32_t kInvalidParameter = 87;
constexpr uint32_t kNoData = 232;
constexpr uint32_t kUnreachable = 1231;

constexpr uint32_t kFamilyIpv6 = 23;
constexpr uint8_t kIpv4Bits = 32;
constexpr uint8_t kIpv6Bits = 128;
/* Room for addresses that appear between the request for the size and the one for the table. */
constexpr uint64_t kSpareRows = 8;

uint32_t maskOf(unsigned prefixLength) {
    return prefixLength == 0 ? 0 : htonl(UINT32_MAX << (kIpv4Bits - std::min(prefixLength, 32U)));
}

/* ---- messages ---- */

/* The attributes of a message by their type; the last of a type counts. */
template <uint16_t kLargestType>
struct Attributes {
    const nlattr *of[kLargestType + 1] = {};

    Attributes(const nlmsghdr *message, size_t headerSize) {
        mnl_attr_parse(message, static_cast<unsigned>(headerSize), keep, of);
    }

    static int keep(const nlattr *attribute, void *table) {
        const uint16_t type = mnl_attr_get_type(attribute);
        if (type <= kLargestType) {
            static_cast<const nlattr **>(table)[type] = attribute;
        }
        return MNL_CB_OK;
    }
};

/* Copies the value of an attribute; false when there is none of that size. */
template <typename Value>
bool valueOf(const nlattr *attribute, Value *value) {
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) != sizeof(*value)) {
        return false;
    }
    memcpy(value, mnl_attr_get_payload(attribute), sizeof(*value));
    return true;
}

/* The header of a message of the expected type; null when the message is another or too short. */
template <typename Header>
const Header *headerOf(const nlmsghdr *message, uint16_t type) {
    const bool usable =
        message->nlmsg_type == type && mnl_nlmsg_get_payload_len(message) >= sizeof(Header);
    return usable ? static_cast<const Header *>(mnl_nlmsg_get_payload(message)) : nullptr;
}

/* ---- routes ---- */

/* What is told of a route; addresses are those of IPv4. */
struct Route {
    uint32_t destination, mask, gateway, interfaceIndex;
};

void forgetRoute(void *context) {
    *static_cast<Route *>(context) = {};
}

void readRoute(const nlmsghdr *message, void *context) {
    const auto *header = headerOf<rtmsg>(message, RTM_NEWROUTE);
    if (header == nullptr) {
        return;
    }
    auto *route = static_cast<Route *>(context);
    const Attributes<RTA_GATEWAY> attributes(message, sizeof(*header));
    valueOf(attributes.of[RTA_OIF], &route->interfaceIndex);
    if (header->rtm_family == AF_INET) {
        route->mask = maskOf(header->rtm_dst_len);
        valueOf(attributes.of[RTA_DST], &route->destination);
        valueOf(attributes.of[RTA_GATEWAY], &route->gateway);
    }
}

/* Asks for the route to an address of `bits` bits. False when there is none. */
bool askRoute(uint8_t family, const void *address, uint8_t bits, uint32_t flags, Route *route) {
    NetlinkRequest request;
    auto *header = static_cast<rtmsg *>(beginRequest(&request, RTM_GETROUTE, 0, sizeof(rtmsg)));
    header->rtm_family = family;
    header->rtm_dst_len = bits;
    header->rtm_flags = flags;
    mnl_attr_put(request.message(), RTA_DST, bits / 8U, address);
    return askKernel(&request, {forgetRoute, readRoute, route}) == 0;
}

/* The table's own entry says towards which network it leads, and names the interface also when the
 * address is this host's own. Where it has several next hops it names none: the kernel is asked which
 * of them it takes. */
bool findRoute(uint8_t family, const void *address, uint8_t bits, Route *route) {
    if (!askRoute(family, address, bits, RTM_F_FIB_MATCH, route)) {
        return false;
    }
    if (route->interfaceIndex == 0) {
        Route taken;
        if (!askRoute(family, address, bits, 0, &taken)) {
            return false;
        }
        route->gateway = taken.gateway;
        route->interfaceIndex = taken.interfaceIndex;
    }
    return route->interfaceIndex != 0;
}

/* ---- addresses ---- */

/* Asks for all addresses of a family; false when the kernel does not tell. */
bool askAddresses(uint8_t family, const NetlinkReader &reader) {
    NetlinkRequest request;
    auto *header = static_cast<ifaddrmsg *>(
        beginRequest(&request, RTM_GETADDR, NLM_F_DUMP, sizeof(ifaddrmsg)));
    header->ifa_family = family;
    return askKernel(&request, reader) == 0;
}

/* Copies the address that a message tells of. On a line between two points that is the local one;
 * elsewhere there is only one. False also for an address of another family, by its size: a kernel
 * without the family that was asked for tells of all others. */
template <typename Address>
bool localAddress(const nlmsghdr *message, Address *address) {
    const Attributes<IFA_LOCAL> attributes(message, sizeof(ifaddrmsg));
    return valueOf(attributes.of[IFA_LOCAL], address) ||
           valueOf(attributes.of[IFA_ADDRESS], address);
}

/* A table while it is filled; `rows` is null, or has room for `room`. */
struct TableFill {
    IpAddrRow *rows;
    uint32_t room;
    uint32_t count;
};

void beginTable(void *context) {
    static_cast<TableFill *>(context)->count = 0;
}

void addRow(const nlmsghdr *message, void *context) {
    auto *fill = static_cast<TableFill *>(context);
    const auto *header = headerOf<ifaddrmsg>(message, RTM_NEWADDR);
    uint32_t address = 0;
    if (header == nullptr || !localAddress(message, &address)) {
        return;
    }
    if (fill->count < fill->room) {
        fill->rows[fill->count] = {address, header->ifa_index, maskOf(header->ifa_prefixlen)};
    }
    fill->count++;
}

/* A list of adapters while it is made. `used` counts on when the buffer is full. */
struct AdapterFill {
    char *buffer;
    uint64_t room;
    uint64_t used;
    uint32_t interfaceIndex; /* of the adapter that is filled; 0 before the first */
    IpAdapter *adapter;
    IpUnicastAddress **preferredEnd; /* the link behind the adapter's last preferred address */
    IpUnicastAddress **end;          /* the link behind its last address */
};

struct AddressEntry {
    IpUnicastAddress unicast;
    sockaddr_in6 address;
};

/* The next piece of the buffer, zeroed; null when the buffer does not reach so far. */
template <typename Piece>
Piece *placePiece(AdapterFill *fill) {
    static_assert(sizeof(Piece) % alignof(IpAdapter) == 0 && alignof(Piece) <= alignof(IpAdapter));
    const uint64_t place = fill->used;
    fill->used += sizeof(Piece);
    return fill->used <= fill->room ? new (fill->buffer + place) Piece{} : nullptr;
}

void beginAdapters(void *context) {
    auto *fill = static_cast<AdapterFill *>(context);
    *fill = {fill->buffer, fill->room, 0, 0, nullptr, nullptr, nullptr};
}

/* The kernel tells all addresses of an interface one after the other. */
void beginAdapter(AdapterFill *fill, uint32_t interfaceIndex) {
    IpAdapter *added = placePiece<IpAdapter>(fill);
    fill->interfaceIndex = interfaceIndex;
    if (added != nullptr) {
        if (fill->adapter != nullptr) {
            fill->adapter->next = added;
        }
        added->ipv6InterfaceIndex = interfaceIndex;
        fill->adapter = added;
        fill->preferredEnd = fill->end = &added->firstUnicast;
    }
}

/* Deprecated addresses go behind the others of their adapter, as nothing new should begin on them. */
void linkAddress(AdapterFill *fill, IpUnicastAddress *added, bool deprecated) {
    IpUnicastAddress **link = deprecated ? fill->end : fill->preferredEnd;
    added->next = *link;
    *link = added;
    if (fill->end == link) {
        fill->end = &added->next;
    }
    if (!deprecated) {
        fill->preferredEnd = &added->next;
    }
}

/* Addresses that another host may have, or has, are left out: nothing can be sent from them. */
bool isUsable(const ifaddrmsg &header) {
    const bool proven =
        (header.ifa_flags & (IFA_F_TENTATIVE | IFA_F_OPTIMISTIC)) != IFA_F_TENTATIVE;
    return proven && (header.ifa_flags & IFA_F_DADFAILED) == 0;
}

void addAdapterAddress(const nlmsghdr *message, void *context) {
    auto *fill = static_cast<AdapterFill *>(context);
    const auto *header = headerOf<ifaddrmsg>(message, RTM_NEWADDR);
    in6_addr address;
    if (header == nullptr || !isUsable(*header) || !localAddress(message, &address)) {
        return;
    }
    if (fill->interfaceIndex != header->ifa_index) {
        beginAdapter(fill, header->ifa_index);
    }
    auto *entry = placePiece<AddressEntry>(fill);
    if (entry == nullptr) {
        return;
    }
    entry->address.sin6_family = AF_INET6;
    entry->address.sin6_addr = address;
    entry->address.sin6_scope_id = IN6_IS_ADDR_LINKLOCAL(&address) ? header->ifa_index : 0;
    entry->unicast.address = reinterpret_cast<sockaddr *>(&entry->address);
    linkAddress(fill, &entry->unicast, (header->ifa_flags & IFA_F_DEPRECATED) != 0);
}

bool comesBefore(const IpAddrRow &a, const IpAddrRow &b) {
    return ntohl(a.address) < ntohl(b.address);
}

/* Tells the caller what its buffer would need. */
uint32_t tooSmall(uint64_t needed, uint32_t *size, uint32_t result) {
    if (needed > UINT32_MAX) {
        return kFailed;
    }
    *size = static_cast<uint32_t>(needed);
    return result;
}

}  // namespace

uint32_t GetBestInterfaceEx(const IpSocketAddress6 *destination, uint32_t *interfaceIndex) {
    if (destination == nullptr || destination->family != kFamilyIpv6 || interfaceIndex == nullptr) {
        return kInvalidParameter;
    }
    Route route;
    if (!findRoute(AF_INET6, destination->address, kIpv6Bits, &route)) {
        return kUnreachable;
    }
    *interfaceIndex = route.interfaceIndex;
    return 0;
}

uint32_t GetAdaptersAddresses(uint32_t family, uint32_t, void *, IpAdapter *buffer,
                              uint32_t *size) {
    if (family != kFamilyIpv6 || size == nullptr) {
        return kInvalidParameter;
    }
    AdapterFill fill = {};
    fill.buffer = reinterpret_cast<char *>(buffer);
    fill.room = buffer == nullptr ? 0 : *size;
    if (!askAddresses(AF_INET6, {beginAdapters, addAdapterAddress, &fill})) {
        return kFailed;
    }
    if (fill.used == 0) {
        return kNoData;
    }
    return fill.used <= fill.room ? 0 : tooSmall(fill.used, size, IP_HELPER_ADAPTERS_TOO_SMALL);
}

uint32_t GetBestRoute(uint32_t destination, uint32_t, IpForwardRow *route) {
    if (route == nullptr) {
        return kInvalidParameter;
    }
    /* Also what a text becomes that is no address; the kernel would name some interface to shout on. */
    if (destination == INADDR_BROADCAST) {
        return kUnreachable;
    }
    Route found;
    if (!findRoute(AF_INET, &destination, kIpv4Bits, &found)) {
        return kUnreachable;
    }
    *route = {found.destination, found.mask, found.gateway, found.interfaceIndex};
    return 0;
}

uint32_t GetIpAddrTable(IpAddrTable *table, uint32_t *size, int32_t sorted) {
    if (size == nullptr) {
        return kInvalidParameter;
    }
    TableFill fill = {};
    if (table != nullptr && *size >= sizeof(*table)) {
        fill.rows = table->rows;
        fill.room = static_cast<uint32_t>((*size - sizeof(*table)) / sizeof(IpAddrRow));
    }
    if (!askAddresses(AF_INET, {beginTable, addRow, &fill})) {
        return kFailed;
    }
    if (fill.rows == nullptr || fill.count > fill.room) {
        const uint64_t rows = fill.count + kSpareRows;
        return tooSmall(sizeof(*table) + rows * sizeof(IpAddrRow), size, IP_HELPER_TABLE_TOO_SMALL);
    }
    table->count = fill.count;
    if (sorted != 0) {
        std::sort(table->rows, table->rows + table->count, comesBefore);
    }
    return 0;
}
