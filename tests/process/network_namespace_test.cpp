/* The choice of a local address on real networks: each network is built in a fork of the test, in a
 * network namespace of its own, and asked there. Nothing leaves the namespace. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "include/conf_network_utils.h"
#include "platform/ip_helper.h"
#include "platform/tamo_om_devm_client.h"
#include "tests/support/child_process.h"
#include "tests/support/network_namespace.h"

namespace {

using std::string;

/* The local address for a destination, or "none". */
string localFor(const string &destination) {
    char out[64] = "untouched";
    if (GetBestLocalIpByDestIp(destination.c_str(), out, sizeof(out)) == 0) {
        return out;
    }
    return strcmp(out, "untouched") == 0 ? "none" : "failed, but written";
}

string has(const string &destination) {
    return localFor(destination) == "none" ? "none" : "a local address";
}

/* The device's own address in a network. */
string own4(const string &network) {
    char block[43] = "";
    const auto selector = static_cast<uint32_t>(std::stoul(network));
    return TamoOmDevmNetGetIpv4Block(selector, block) == 0 ? block : "none";
}
string own6(const string &network) {
    char block[43] = "";
    const auto selector = static_cast<uint32_t>(std::stoul(network));
    return TamoOmDevmNetGetIpv6Block(selector, block) == 0 ? block : "none";
}

/* How many IPv6 addresses of an interface the platform tells. */
string countAddresses(const string &interfaceName) {
    alignas(IpAdapter) char buffer[15000];
    uint32_t size = sizeof(buffer);
    auto *adapter = reinterpret_cast<IpAdapter *>(buffer);
    if (GetAdaptersAddresses(23, 0x13C, nullptr, adapter, &size) != 0) {
        return "no list";
    }
    int count = 0;
    for (; adapter != nullptr; adapter = adapter->next) {
        const bool wanted = adapter->ipv6InterfaceIndex == if_nametoindex(interfaceName.c_str());
        for (auto *each = adapter->firstUnicast; wanted && each != nullptr; each = each->next) {
            count += each->address->sa_family == AF_INET6;
        }
    }
    return std::to_string(count);
}

/* net0 and net1 are the two ends of one cable, net2 and net3 those of another. */
constexpr char kCables[] =
    "link add net0 type veth peer name net1;link add net2 type veth peer name net3;"
    "link set net0 up;link set net1 up;link set net2 up;link set net3 up";

bool configure(string lines) {
    std::replace(lines.begin(), lines.end(), ';', '\n');
    return support::configureNetwork(lines + "\n");
}

enum Means { kNoNamespace, kNoIpv6, kAll };

/* What this system gives a fork. IPv6 may be missing, or switched off for every new interface. */
Means means() {
    const pid_t child = fork();
    if (child == 0) {
        string reason;
        int off = 1;
        std::ifstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") >> off;
        const bool entered = support::enterNetworkNamespace(&reason);
        _exit(!entered ? kNoNamespace : off == 0 ? kAll : kNoIpv6);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return static_cast<Means>(WEXITSTATUS(status));
}

/* Changes of the network, and what is answered then. */
struct Step {
    string lines;
    struct Ask {
        string (*question)(const string &);
        const char *of, *answer;
    };
    std::vector<Ask> asks;
};

struct Network {
    const char *what;
    std::vector<Step> steps;
};

void expectAnswers(const std::vector<Network> &networks, Means needed) {
    const Means given = means();
    if (given < needed) {
        GTEST_SKIP() << "this system gives the test no network of its own, or one without IPv6";
    }
    for (const Network &network : networks) {
        support::inFork([&] {
            SCOPED_TRACE(network.what);
            string reason;
            ASSERT_TRUE(support::enterNetworkNamespace(&reason) && configure(kCables)) << reason;
            for (const Step &step : network.steps) {
                ASSERT_TRUE(configure(step.lines)) << step.lines.substr(0, 200);
                for (const auto &[question, of, answer] : step.asks) {
                    EXPECT_EQ(question(of), answer) << of;
                }
            }
        });
    }
}

TEST(NetworkNamespace, Ipv4AddressesFollowTheRoutes) {
    expectAnswers({{"on link and through a gateway",
                    {{"addr add 10.0.0.5/24 dev net0;addr add 10.0.1.5/16 dev net2;"
                      "route add 198.51.100.0/24 via 10.0.0.1;route add default via 10.0.1.1",
                      {{localFor, "10.0.0.9", "10.0.0.5"},
                       {localFor, "10.0.7.9", "10.0.1.5"},
                       {localFor, "198.51.100.9", "10.0.0.5"},
                       {localFor, "203.0.113.9", "10.0.1.5"},
                       {localFor, "10.0.0.5", "10.0.0.5"},
                       {localFor, "127.0.0.1", "127.0.0.1"}}},
                     {"addr del 10.0.0.5/24 dev net0;addr add 10.0.0.6/24 dev net0",
                      {{localFor, "10.0.0.9", "10.0.0.6"}}}}},
                   {"two addresses on one interface",
                    {{"addr add 10.0.0.5/24 dev net0;addr add 10.0.1.5/24 dev net0;"
                      "route add 198.51.100.0/24 via 10.0.1.1;route add 203.0.113.0/24 dev net0;"
                      "route add 192.0.2.0/24 nexthop via 10.0.1.1 nexthop via 10.0.1.2",
                      {{localFor, "10.0.0.9", "10.0.0.5"},
                       {localFor, "10.0.1.9", "10.0.1.5"},
                       {localFor, "198.51.100.9", "10.0.1.5"},
                       {localFor, "203.0.113.9", "10.0.0.5"}, /* neither matches: the first one */
                       {localFor, "192.0.2.9", "10.0.1.5"}}}}},
                   {"no address, then two that are added in the other order",
                    {{"link set lo up",
                      {{localFor, "198.51.100.9", "none"},
                       {localFor, "2001:db8::9", "none"},
                       {localFor, "0.0.0.0", "none"},
                       {localFor, "no address", "none"},
                       {own4, "0", "none"}}}, /* the loopback is no network */
                     {"link set net1 down;link set net3 down;addr add 192.0.2.2/24 dev net2;"
                      "addr add 192.0.2.1/24 dev net0",
                      {{own4, "0", "192.0.2.1"}, {own4, "1", "192.0.2.2"}, {own4, "2", "none"}}}}},
                   {"no route",
                    {{"addr add 10.0.0.5/24 dev net0;route add default via 10.0.0.1;"
                      "route add unreachable 198.51.100.0/24;route add blackhole 203.0.113.0/24",
                      {{localFor, "192.0.2.9", "10.0.0.5"},
                       {localFor, "198.51.100.9", "none"},
                       {localFor, "203.0.113.9", "none"},
                       {localFor, "255.255.255.255", "none"}}}}}},
                  kNoIpv6);
}

TEST(NetworkNamespace, Ipv6AddressesFollowTheRoutes) {
    /* So many addresses that the first buffers are too small and the answers come in many pieces. */
    string hundreds = "addr add 10.0.0.5/24 dev net0";
    for (int i = 1; i <= 500; i++) {
        hundreds += ";addr add 10." + std::to_string(i / 200 + 1) + "." + std::to_string(i % 200) +
                    ".5/24 dev net0;addr add 2001:db8:" + std::to_string(i) +
                    "::5/64 dev net2 nodad";
    }
    expectAnswers(
        {{"on link and through a gateway",
          {{"addr add 2001:db8::5/64 dev net0 nodad;addr add 2001:db8:1::5/64 dev net2 nodad;"
            "route add 2001:db8:9::/48 via 2001:db8::1;route add default via 2001:db8:1::1",
            {{localFor, "2001:db8::9", "2001:db8::5"},
             {localFor, "2001:db8:9::9", "2001:db8::5"},
             {localFor, "2001:db8:a::9", "2001:db8:1::5"},
             {localFor, "::1", "::1"},
             {own6, "1", "2001:db8::5"}}}, /* behind net1, which has a link local one only */
           {"addr add 2001:db8:b::1/64 dev net3 preferred_lft 0 nodad", {}},
           {"addr add 2001:db8:b::2/64 dev net3 nodad", /* a deprecated one is the last choice */
            {{localFor, "2001:db8:b::9", "2001:db8:b::2"}}}}},
         {"link local addresses only",
          {{"addr add fe80::5/64 dev net0 nodad;route add default via fe80::1 dev net0",
            {{localFor, "2001:db8::9", "none"}, {localFor, "fe80::1", "none"}}},
           {"addr add 2001:db8::5/64 dev net0 nodad",
            {{localFor, "2001:db8:9::9", "2001:db8::5"}}}}},
         /* Without its other end an interface cannot find out whether an address is its own. */
         {"an address that is not proven",
          {{"link set net1 down;link set net0 down;link set net0 addrgenmode none;"
            "link set net0 up;addr add 2001:db8::5/64 dev net0",
            {{countAddresses, "net0", "0"}}},
           {"addr add 2001:db8::6/64 dev net0 nodad", {{countAddresses, "net0", "1"}}}}},
         {"hundreds of addresses",
          {{hundreds,
            {{localFor, "10.2.199.9", "10.2.199.5"},
             {has, "2001:db8:77::9", "a local address"},
             {countAddresses, "net2", "no list"}}}}}}, /* more than 15,000 bytes */
        kAll);
}

TEST(IpHelper, MissingArgumentsAndNoRouteAreFailuresThatLeaveTheRecordsAlone) {
    uint32_t number = 64;
    IpSocketAddress6 other = {};
    other.family = 2;
    IpForwardRow row = {1, 2, 3, 4};
    EXPECT_NE(GetBestRoute(inet_addr("10.0.0.1"), 0, nullptr), 0U);
    EXPECT_NE(GetBestRoute(INADDR_NONE, 0, &row), 0U);
    EXPECT_NE(GetBestInterfaceEx(nullptr, &number), 0U);
    EXPECT_NE(GetBestInterfaceEx(&other, &number), 0U);
    other.family = 23;
    EXPECT_NE(GetBestInterfaceEx(&other, nullptr), 0U);
    EXPECT_NE(GetAdaptersAddresses(23, 0, nullptr, nullptr, nullptr), 0U);
    EXPECT_NE(GetAdaptersAddresses(2, 0, nullptr, nullptr, &number), 0U);
    EXPECT_NE(GetIpAddrTable(nullptr, nullptr, 0), 0U);
    EXPECT_EQ(row.interfaceIndex, 4U);
    EXPECT_EQ(number, 64U);
}

}  // namespace
