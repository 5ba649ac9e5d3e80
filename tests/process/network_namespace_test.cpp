/* The choice of a local address on real networks: each case has a child process in a network namespace
 * of its own, sets up links, addresses and routes there, and asks. Nothing leaves the namespace. */
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "include/conf_network_utils.h"
#include "platform/ip_helper.h"
#include "platform/tamo_om_devm_client.h"
#include "tests/support/child_process.h"
#include "tests/support/network_namespace.h"

namespace {

using std::string;

/* The local address for a destination, or "none". */
string choose(const string &destination) {
    char out[64] = "untouched";
    if (GetBestLocalIpByDestIp(destination.c_str(), out, sizeof(out)) == 0) {
        return out;
    }
    return strcmp(out, "untouched") == 0 ? "none" : "failed, but written";
}

/* The device's own address in a network. */
string deviceAddress(int32_t (*operation)(uint32_t, char *), uint32_t selector) {
    char block[43] = "";
    return operation(selector, block) == 0 ? block : "none";
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
            count++;
        }
    }
    return std::to_string(count);
}

/* It may be missing altogether, or switched off for every new interface. */
string hasIpv6() {
    int off = 1;
    std::ifstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") >> off;
    return off == 0 ? "yes" : "no";
}

/* Does as the parent says, one line after the other: "ip LINES" (";" between them), "choose TEXT",
 * "own4 NETWORK", "own6 NETWORK", "count INTERFACE", "ipv6". */
const support::ChildRole inNamespace("namespace", [](const support::ChildArguments &) {
    string reason;
    const bool entered = support::enterNetworkNamespace(&reason);
    support::tellParent(entered ? "entered" : reason);
    for (string line = support::hearParent(); !line.empty(); line = support::hearParent()) {
        const size_t space = line.find(' ');
        const string verb = line.substr(0, space);
        string rest = space == string::npos ? "" : line.substr(space + 1);
        if (verb == "choose") {
            support::tellParent(choose(rest));
        } else if (verb == "own4") {
            support::tellParent(
                deviceAddress(TamoOmDevmNetGetIpv4Block, static_cast<uint32_t>(std::stoul(rest))));
        } else if (verb == "own6") {
            support::tellParent(
                deviceAddress(TamoOmDevmNetGetIpv6Block, static_cast<uint32_t>(std::stoul(rest))));
        } else if (verb == "count") {
            support::tellParent(countAddresses(rest));
        } else if (verb == "ipv6") {
            support::tellParent(hasIpv6());
        } else {
            std::replace(rest.begin(), rest.end(), ';', '\n');
            support::tellParent(support::configureNetwork(rest + "\n") ? "done" : "failed");
        }
    }
    return 0;
});

/* net0 and net1 are the two ends of one cable, net2 and net3 those of another. */
constexpr char kCables[] =
    "link add net0 type veth peer name net1;link add net2 type veth peer name net3;"
    "link set net0 up;link set net1 up;link set net2 up;link set net3 up";

class NetworkNamespace : public testing::Test {
  protected:
    void SetUp() override {
        child.emplace("namespace");
        const string told = child->hear();
        if (told != "entered") {
            GTEST_SKIP() << "this system gives the test no network of its own: " << told;
        }
        configure(kCables);
    }
    void TearDown() override {
        child->hangUp();
        EXPECT_EQ(child->wait(), support::exited(0));
    }

    void configure(const string &lines) { ASSERT_EQ(ask("ip " + lines), "done") << lines; }
    string localFor(const string &destination) { return ask("choose " + destination); }
    string ask(const string &line) {
        child->tell(line);
        return child->hear(60);
    }

    std::optional<support::ChildProcess> child;
};

class Ipv6Namespace : public NetworkNamespace {
  protected:
    void SetUp() override {
        NetworkNamespace::SetUp();
        if (!IsSkipped() && ask("ipv6") != "yes") {
            GTEST_SKIP() << "this system has no IPv6, or has it switched off";
        }
    }
};

/* One network, and what is chosen for each destination there. */
struct Network {
    const char *name, *lines;
    std::vector<std::pair<const char *, const char *>> choices;
};

class EachNetwork : public NetworkNamespace, public testing::WithParamInterface<Network> {};

TEST_P(EachNetwork, HasTheRightLocalAddress) {
    configure(GetParam().lines);
    for (const auto &[destination, local] : GetParam().choices) {
        EXPECT_EQ(localFor(destination), local) << destination;
    }
}

INSTANTIATE_TEST_SUITE_P(
    NetworkNamespace, EachNetwork,
    testing::Values(
        Network{"OnLinkAndThroughAGateway",
                "addr add 10.0.0.5/24 dev net0;addr add 10.0.1.5/16 dev net2;"
                "route add 198.51.100.0/24 via 10.0.0.1;route add default via 10.0.1.1",
                {{"10.0.0.9", "10.0.0.5"},
                 {"10.0.7.9", "10.0.1.5"},
                 {"198.51.100.9", "10.0.0.5"},
                 {"203.0.113.9", "10.0.1.5"},
                 {"10.0.0.5", "10.0.0.5"},
                 {"127.0.0.1", "127.0.0.1"}}},
        Network{"TwoAddressesOnOneInterface",
                "addr add 10.0.0.5/24 dev net0;addr add 10.0.1.5/24 dev net0;"
                "route add 198.51.100.0/24 via 10.0.1.1;route add 203.0.113.0/24 dev net0;"
                "route add 192.0.2.0/24 nexthop via 10.0.1.1 nexthop via 10.0.1.2",
                {{"10.0.0.9", "10.0.0.5"},
                 {"10.0.1.9", "10.0.1.5"},
                 {"198.51.100.9", "10.0.1.5"},
                 {"203.0.113.9", "10.0.0.5"}, /* neither matches: the first one */
                 {"192.0.2.9", "10.0.1.5"}}},
        Network{"NoAddress",
                "link set lo up",
                {{"198.51.100.9", "none"},
                 {"2001:db8::9", "none"},
                 {"0.0.0.0", "none"},
                 {"no address", "none"},
                 {"::", "none"}}},
        Network{"NoRoute",
                "addr add 10.0.0.5/24 dev net0;route add default via 10.0.0.1;"
                "route add unreachable 198.51.100.0/24;route add blackhole 203.0.113.0/24",
                {{"192.0.2.9", "10.0.0.5"},
                 {"198.51.100.9", "none"},
                 {"203.0.113.9", "none"},
                 {"255.255.255.255", "none"}}}),
    [](const auto &each) { return each.param.name; });

TEST_F(NetworkNamespace, TheDevicesAddressesAreInTheOrderOfTheirNetworks) {
    EXPECT_EQ(ask("own4 0"), "none") << "the loopback is no network";
    configure(
        "link set net1 down;link set net3 down;addr add 192.0.2.2/24 dev net2;"
        "addr add 192.0.2.1/24 dev net0");
    EXPECT_EQ(ask("own4 0"), "192.0.2.1");
    EXPECT_EQ(ask("own4 1"), "192.0.2.2");
    EXPECT_EQ(ask("own4 2"), "none");
}

TEST_F(Ipv6Namespace, OnLinkAndThroughAGateway) {
    configure(
        "addr add 2001:db8::5/64 dev net0 nodad;addr add 2001:db8:1::5/64 dev net2 nodad;"
        "route add 2001:db8:9::/48 via 2001:db8::1;route add default via 2001:db8:1::1");
    EXPECT_EQ(localFor("2001:db8::9"), "2001:db8::5");
    EXPECT_EQ(localFor("2001:db8:9::9"), "2001:db8::5");
    EXPECT_EQ(localFor("2001:db8:a::9"), "2001:db8:1::5");
    EXPECT_EQ(localFor("::1"), "::1");
    configure("addr add 2001:db8:b::1/64 dev net3 preferred_lft 0 nodad");
    configure("addr add 2001:db8:b::2/64 dev net3 nodad");
    EXPECT_EQ(localFor("2001:db8:b::9"), "2001:db8:b::2") << "a deprecated one is the last choice";
    EXPECT_TRUE(ask("own6 0").starts_with("fe80:")) << "of net1, whose only one it is";
    EXPECT_EQ(ask("own6 1"), "2001:db8::5");
}

TEST_F(Ipv6Namespace, WithLinkLocalAddressesOnlyHasNone) {
    configure("addr add fe80::5/64 dev net0 nodad;route add default via fe80::1 dev net0");
    EXPECT_EQ(localFor("2001:db8::9"), "none");
    EXPECT_EQ(localFor("fe80::1"), "none");
    configure("addr add 2001:db8::5/64 dev net0 nodad");
    EXPECT_EQ(localFor("2001:db8:9::9"), "2001:db8::5");
}

/* Without its other end an interface cannot find out whether an address is its own. */
TEST_F(Ipv6Namespace, AddressesThatAreNotProvenAreLeftOut) {
    configure(
        "link set net1 down;link set net0 down;link set net0 addrgenmode none;"
        "link set net0 up;addr add 2001:db8::5/64 dev net0");
    EXPECT_EQ(ask("count net0"), "0");
    configure("addr add 2001:db8::6/64 dev net0 nodad");
    EXPECT_EQ(ask("count net0"), "1");
}

/* So many addresses that the first buffers are too small and the answers come in many pieces. */
TEST_F(Ipv6Namespace, HundredsOfAddresses) {
    string lines = "addr add 10.0.0.5/24 dev net0";
    for (int i = 1; i <= 500; i++) {
        lines += ";addr add 10." + std::to_string(i / 200 + 1) + "." + std::to_string(i % 200) +
                 ".5/24 dev net0;addr add 2001:db8:" + std::to_string(i) + "::5/64 dev net2 nodad";
    }
    configure(lines);
    EXPECT_EQ(localFor("10.2.199.9"), "10.2.199.5");
    EXPECT_NE(localFor("2001:db8:77::9"), "none");
    EXPECT_EQ(ask("count net2"), "no list") << "more than 15,000 bytes";
}

TEST_F(NetworkNamespace, TenThousandRoutesAndAddressesThatComeAndGo) {
    string lines =
        "addr add 10.0.0.5/24 dev net0;addr add 10.1.0.5/24 dev net2;"
        "route add default via 10.1.0.1";
    for (int i = 0; i < 10000; i++) {
        lines += ";route add 172." + std::to_string(16 + i / 4096) + "." +
                 std::to_string(i / 16 % 256) + "." + std::to_string(i % 16 * 16) +
                 "/28 via 10.0.0.1";
    }
    configure(lines);
    EXPECT_EQ(localFor("172.16.0.1"), "10.0.0.5");
    EXPECT_EQ(localFor("172.18.112.241"), "10.0.0.5");
    EXPECT_EQ(localFor("172.18.113.1"), "10.1.0.5") << "behind the last one";
    configure("addr del 10.0.0.5/24 dev net0;addr add 10.0.0.6/24 dev net0");
    EXPECT_EQ(localFor("10.0.0.9"), "10.0.0.6");
}

}  // namespace
