/* The IP helper, on answers that the test gives in the kernel's place. The real kernel is asked in
 * network_namespace_test.cpp. */
#include "platform/ip_helper.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/host/netlink_kernel.h"
#include "tests/support/open_descriptors.h"

namespace {

using netlink::Datagram;
using netlink::kernel;
using netlink::Step;
using std::string;
using std::vector;

uint32_t ip(const char *text) {
    return inet_addr(text);
}

/* An entry of the route table as the kernel tells it: a network and the length of its prefix. */
Datagram route(uint8_t family, uint8_t prefixLength) {
    rtmsg header = {};
    header.rtm_family = family;
    header.rtm_dst_len = prefixLength;
    return Datagram().begin(RTM_NEWROUTE, header);
}

void addAddress(Datagram &datagram, const char *text, uint32_t index, uint8_t prefixLength,
                uint8_t flags = 0, uint16_t attribute = IFA_LOCAL) {
    ifaddrmsg header = {};
    header.ifa_family = strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
    header.ifa_index = index;
    header.ifa_prefixlen = prefixLength;
    header.ifa_flags = flags;
    datagram.begin(RTM_NEWADDR, header, NLM_F_MULTI).address(attribute, text);
}

Step refusal(int error) {
    return {0, Datagram().begin(NLMSG_ERROR, nlmsgerr{-error, {}})};
}

vector<Step> whole(const Datagram &first) {
    return {{0, first}, {0, Datagram().done()}};
}

class IpHelper : public testing::Test {
  protected:
    void SetUp() override {
        IpForwardRow ignored;
        GetBestRoute(ip("127.0.0.1"), 0, &ignored); /* opens what is kept */
        descriptors.emplace();
        kernel = {};
        kernel.replaced = true;
    }
    void TearDown() override { kernel = {}; }

    std::optional<support::DescriptorCheck> descriptors;
};

/* ---- routes ---- */

TEST_F(IpHelper, NoRouteIsAFailureAndLeavesTheRecordAlone) {
    IpForwardRow row = {1, 2, 3, 4};
    uint32_t index = 5;
    IpSocketAddress6 destination = {};
    destination.family = 23;
    kernel.answers = {{refusal(ENETUNREACH)},
                      {refusal(EHOSTUNREACH)},
                      {{0, route(AF_INET, 16)}},
                      {refusal(ENETUNREACH)}};
    EXPECT_NE(GetBestRoute(ip("10.9.1.1"), 0, &row), 0U);
    EXPECT_NE(GetBestInterfaceEx(&destination, &index), 0U);
    EXPECT_NE(GetBestRoute(ip("10.9.1.1"), 0, &row), 0U);
    EXPECT_NE(GetBestRoute(ip("255.255.255.255"), 0, &row), 0U);
    EXPECT_EQ(kernel.questions.size(), 4U) << "all ones need no question";
    EXPECT_EQ(row.interfaceIndex, 4U);
    EXPECT_EQ(index, 5U);
}

TEST_F(IpHelper, MissingArgumentsAreRefusedWithoutAQuestion) {
    uint32_t number = 64;
    IpSocketAddress6 other = {};
    other.family = 2;
    EXPECT_NE(GetBestRoute(ip("10.0.0.1"), 0, nullptr), 0U);
    EXPECT_NE(GetBestInterfaceEx(nullptr, &number), 0U);
    EXPECT_NE(GetBestInterfaceEx(&other, &number), 0U);
    other.family = 23;
    EXPECT_NE(GetBestInterfaceEx(&other, nullptr), 0U);
    EXPECT_NE(GetAdaptersAddresses(23, 0, nullptr, nullptr, nullptr), 0U);
    EXPECT_NE(GetAdaptersAddresses(2, 0, nullptr, nullptr, &number), 0U);
    EXPECT_NE(GetIpAddrTable(nullptr, nullptr, 0), 0U);
    EXPECT_TRUE(kernel.questions.empty());
}

/* ---- the IPv4 table ---- */

struct Table {
    uint32_t count;
    IpAddrRow rows[64];
};

uint32_t readTable(Table *table, uint32_t size, int32_t sorted = 0) {
    *table = {};
    return GetIpAddrTable(reinterpret_cast<IpAddrTable *>(table), &size, sorted);
}

TEST_F(IpHelper, TableHasAddressesAndMasksInNetworkOrder) {
    Datagram addresses;
    addAddress(addresses, "10.0.0.2", 2, 32);
    addresses.address(IFA_ADDRESS, "10.0.0.9"); /* the other end of a line */
    addAddress(addresses, "2001:db8::1", 2, 64);
    addAddress(addresses, "10.0.0.1", 3, 0);
    kernel.answers.assign(2, whole(addresses));
    const IpAddrRow first = {ip("10.0.0.2"), 2, UINT32_MAX}, second = {ip("10.0.0.1"), 3, 0};
    for (const bool sorted : {false, true}) {
        Table table;
        ASSERT_EQ(readTable(&table, sizeof(table), sorted), 0U);
        ASSERT_EQ(table.count, 2U);
        EXPECT_EQ(memcmp(&table.rows[sorted ? 1 : 0], &first, sizeof(first)), 0);
        EXPECT_EQ(memcmp(&table.rows[sorted ? 0 : 1], &second, sizeof(second)), 0);
    }
}

TEST_F(IpHelper, SizeThatIsAskedForHoldsTheTable) {
    Datagram addresses;
    for (uint32_t i = 0; i < 40; i++) {
        addAddress(addresses, "10.0.0.1", i, 24);
    }
    kernel.answers.assign(3, whole(addresses));
    Table table;
    uint32_t size = 0;
    EXPECT_EQ(GetIpAddrTable(nullptr, &size, 0), uint32_t{IP_HELPER_TABLE_TOO_SMALL});
    EXPECT_GE(size, 4 + 40 * sizeof(IpAddrRow));
    EXPECT_EQ(readTable(&table, size), 0U);
    EXPECT_EQ(table.count, 40U);
    EXPECT_EQ(readTable(&table, 4 + 40 * sizeof(IpAddrRow) - 1),
              uint32_t{IP_HELPER_TABLE_TOO_SMALL});
    EXPECT_EQ(table.rows[39].address, 0U);
}

/* ---- IPv6 adapters ---- */

/* The list as "index address address ...", line by line; everything must lie within the buffer. */
string listAdapters(const vector<char> &buffer) {
    const auto inside = [&](const void *place, size_t size) {
        const auto *byte = static_cast<const char *>(place);
        return byte >= buffer.data() && byte + size <= buffer.data() + buffer.size();
    };
    string list;
    for (auto *adapter = reinterpret_cast<const IpAdapter *>(buffer.data()); adapter != nullptr;
         adapter = adapter->next) {
        EXPECT_TRUE(inside(adapter, sizeof(*adapter)));
        list += std::to_string(adapter->ipv6InterfaceIndex);
        for (const auto *each = adapter->firstUnicast; each != nullptr; each = each->next) {
            EXPECT_TRUE(inside(each, sizeof(*each)) && inside(each->address, sizeof(sockaddr_in6)));
            const auto *address = reinterpret_cast<const sockaddr_in6 *>(each->address);
            char text[INET6_ADDRSTRLEN];
            EXPECT_EQ(address->sin6_family, AF_INET6);
            list += string(" ") + inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof(text));
            list += address->sin6_scope_id != 0 ? "%" + std::to_string(address->sin6_scope_id) : "";
        }
        list += "\n";
    }
    return list;
}

uint32_t readAdapters(vector<char> *buffer, uint32_t *size) {
    buffer->assign(*size, '\x5A');
    return GetAdaptersAddresses(23, 0x13C, nullptr, reinterpret_cast<IpAdapter *>(buffer->data()),
                                size);
}

TEST_F(IpHelper, AdaptersListUsableAddressesWithDeprecatedOnesLast) {
    Datagram first, second;
    addAddress(first, "::1", 1, 128, 0, IFA_ADDRESS);
    addAddress(first, "2001:db8::d1", 2, 64, IFA_F_DEPRECATED);
    addAddress(first, "2001:db8::1", 2, 64);
    addAddress(first, "2001:db8::bad", 2, 64, IFA_F_DADFAILED);
    addAddress(first, "2001:db8::7e57", 2, 64, IFA_F_TENTATIVE);
    addAddress(first, "2001:db8::d2", 2, 64, IFA_F_DEPRECATED);
    addAddress(second, "2001:db8::2", 2, 64, IFA_F_TENTATIVE | IFA_F_OPTIMISTIC);
    addAddress(second, "fe80::1", 2, 64);
    addAddress(second, "2001:db8::3", 3, 128);
    second.address(IFA_ADDRESS, "2001:db8::4"); /* the other end of a line */
    kernel.answers = {{{0, first}, {0, second}, {0, Datagram().done()}}};
    vector<char> buffer;
    uint32_t size = 15000;
    ASSERT_EQ(readAdapters(&buffer, &size), 0U);
    EXPECT_EQ(listAdapters(buffer),
              "1 ::1\n"
              "2 2001:db8::1 2001:db8::2 fe80::1%2 2001:db8::d1 2001:db8::d2\n"
              "3 2001:db8::3\n");
}

TEST_F(IpHelper, AdapterBufferThatIsTooSmallIsTheRightSizeNext) {
    Datagram addresses;
    for (uint32_t i = 0; i < 30; i++) {
        addAddress(addresses, i % 2 == 0 ? "2001:db8::1" : "2001:db8::2", 1 + i / 2, 64,
                   i % 4 == 0 ? IFA_F_DEPRECATED : 0);
    }
    kernel.answers.assign(202, whole(addresses));
    vector<char> buffer;
    uint32_t needed = 0;
    ASSERT_EQ(GetAdaptersAddresses(23, 0, nullptr, nullptr, &needed),
              uint32_t{IP_HELPER_ADAPTERS_TOO_SMALL});
    const uint32_t step = needed / 100;
    for (uint32_t size = 0; size < needed; size += step) {
        uint32_t told = size;
        EXPECT_EQ(readAdapters(&buffer, &told), uint32_t{IP_HELPER_ADAPTERS_TOO_SMALL});
        EXPECT_EQ(told, needed);
    }
    ASSERT_EQ(readAdapters(&buffer, &needed), 0U);
    const string list = listAdapters(buffer);
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 15);
    EXPECT_EQ(std::count(list.begin(), list.end(), ' '), 30);
}

/* ---- an unreliable kernel ---- */

TEST_F(IpHelper, AnswerThatIsNotWholeIsAskedForAgain) {
    Datagram good, interrupted, stale, foreign;
    addAddress(good, "10.0.0.1", 1, 24);
    addAddress(interrupted, "10.0.0.2", 1, 24);
    interrupted.last()->nlmsg_flags |= NLM_F_DUMP_INTR;
    addAddress(stale, "10.0.0.3", 1, 24);
    stale.last()->nlmsg_seq = 0U - 1;
    addAddress(foreign, "10.0.0.4", 1, 24);
    foreign.last()->nlmsg_pid = 1;
    Datagram changedAtTheEnd = Datagram().done();
    changedAtTheEnd.last()->nlmsg_flags |= NLM_F_DUMP_INTR;
    kernel.answers = {{{0, interrupted}},
                      {{0, stale}},
                      {{0, foreign}},
                      {{0, good}, {0, changedAtTheEnd}},
                      {{0, good}, {ENOBUFS, {}}},
                      {{EAGAIN, {}}},
                      {{EINTR, {}}, {0, good}, {EINTR, {}}, {0, Datagram().done()}}};
    kernel.failSends = 2;
    Table table;
    ASSERT_EQ(readTable(&table, sizeof(table)), 0U);
    EXPECT_EQ(kernel.questions.size(), 7U);
    ASSERT_EQ(table.count, 1U);
    EXPECT_EQ(table.rows[0].address, ip("10.0.0.1"));
}

TEST_F(IpHelper, DamagedAnswersAreNotBelieved) {
    Datagram shortHeader = Datagram().begin(RTM_NEWADDR, uint16_t{AF_INET}, NLM_F_MULTI);
    Datagram shortAddress, emptyError = Datagram().begin(NLMSG_ERROR, uint8_t{0});
    addAddress(shortAddress, "10.0.0.1", 1, 24, 0, IFA_LABEL);
    shortAddress.put(IFA_LOCAL, "\x0a\x00", 2);
    emptyError.last()->nlmsg_len = sizeof(nlmsghdr);
    kernel.answers = {{{0, shortHeader}, {0, shortAddress}, {0, Datagram().done()}},
                      {{0, emptyError}},
                      {{0, shortHeader}},
                      {{0, shortHeader}}};
    Table table;
    ASSERT_EQ(readTable(&table, sizeof(table)), 0U);
    EXPECT_EQ(table.count, 0U);
    EXPECT_NE(readTable(&table, sizeof(table)), 0U);
    IpForwardRow row;
    EXPECT_NE(GetBestRoute(ip("10.0.0.1"), 0, &row), 0U);

    kernel = {};
    kernel.replaced = true;
    kernel.lengthen = string(9000, 'x');
    kernel.answers.assign(40, {{0, shortHeader}});
    EXPECT_NE(readTable(&table, sizeof(table)), 0U);
}

/* ---- the real kernel ---- */

/* The ports of this process's sockets to the kernel. */
std::set<uint32_t> openPorts() {
    std::set<uint32_t> ports;
    for (const auto &[descriptor, target] : support::openDescriptors()) {
        sockaddr_nl address = {};
        socklen_t size = sizeof(address);
        if (getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &size) == 0 &&
            address.nl_family == AF_NETLINK) {
            ports.insert(address.nl_pid);
        }
    }
    return ports;
}

TEST_F(IpHelper, ThreadsAndForkedChildrenHaveSocketsOfTheirOwn) {
    kernel.replaced = false;
    const auto ask = [] {
        IpForwardRow row = {};
        return GetBestRoute(ip("127.0.0.1"), 0, &row) == 0 && row.interfaceIndex == 1;
    };
    ASSERT_TRUE(ask());
    const auto before = openPorts();
    ASSERT_EQ(before.size(), 1U);
    const pid_t child = fork();
    if (child == 0) {
        const bool good = ask();
        const auto ports = openPorts();
        _exit(good && ports.size() == 1 && ports != before ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    std::thread([&] {
        EXPECT_TRUE(ask());
        EXPECT_EQ(openPorts().size(), 2U);
    }).join();
    EXPECT_EQ(openPorts(), before);
    EXPECT_TRUE(ask());
}

}  // namespace
