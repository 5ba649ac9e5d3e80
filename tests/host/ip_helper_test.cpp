/* The IP helper, asked directly. What it tells of networks of all kinds is in
 * tests/process/network_namespace_test.cpp. */
#include "platform/ip_helper.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <set>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/open_descriptors.h"

namespace {

uint32_t ip(const char *text) {
    return inet_addr(text);
}

TEST(IpHelper, MissingArgumentsAndNoRouteAreFailuresThatLeaveTheRecordsAlone) {
    uint32_t number = 64;
    IpSocketAddress6 other = {};
    other.family = 2;
    IpForwardRow row = {1, 2, 3, 4};
    EXPECT_NE(GetBestRoute(ip("10.0.0.1"), 0, nullptr), 0U);
    EXPECT_NE(GetBestRoute(ip("255.255.255.255"), 0, &row), 0U);
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

TEST(IpHelper, ThreadsAndForkedChildrenHaveSocketsOfTheirOwn) {
    const auto ask = [] {
        IpForwardRow row = {};
        return GetBestRoute(ip("127.0.0.1"), 0, &row) == 0 && row.interfaceIndex == 1;
    };
    ASSERT_TRUE(ask());
    const auto before = openPorts();
    ASSERT_EQ(before.size(), 1U);
    support::inFork([&] {
        EXPECT_TRUE(ask());
        const auto ports = openPorts();
        EXPECT_TRUE(ports.size() == 1 && ports != before);
    });
    std::thread([&] {
        EXPECT_TRUE(ask());
        EXPECT_EQ(openPorts().size(), 2U);
    }).join();
    EXPECT_EQ(openPorts(), before);
    EXPECT_TRUE(ask());
}

}  // namespace
