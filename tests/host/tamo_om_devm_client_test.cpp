/* The device's own addresses, in a network of the test's own, and the directories of customised files. */
#include "tamo_om_devm_client.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tamo_om_cust_util.h"
#include "tests/support/child_process.h"
#include "tests/support/network_namespace.h"
#include "tests/support/scratch_root.h"

namespace fs = std::filesystem;

namespace {

using std::string;

ifaddrs *givenInterfaces; /* in place of the machine's, where there are */

template <typename Function>
Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

int getifaddrs(ifaddrs **list) {
    if (givenInterfaces == nullptr) {
        return next<decltype(getifaddrs)>("getifaddrs")(list);
    }
    *list = givenInterfaces;
    return 0;
}

void freeifaddrs(ifaddrs *list) {
    if (list != givenInterfaces) {
        next<decltype(freeifaddrs)>("freeifaddrs")(list);
    }
}

/* Given names begin with their index. */
unsigned if_nametoindex(const char *name) noexcept {
    return givenInterfaces == nullptr ? next<decltype(if_nametoindex)>("if_nametoindex")(name)
                                      : static_cast<unsigned>(atoi(name));
}

namespace {

string ask(int32_t (*operation)(uint32_t, char *), uint32_t selector) {
    char block[43];
    std::fill_n(block, 42, '?');
    block[42] = '\0';
    if (operation(selector, block) != 0) {
        return block == string(42, '?') ? "none" : "failed, but written";
    }
    return std::count(block, block + 42, '?') == 0 ? block : "not filled";
}

const support::ChildRole inNamespace("addresses", [](const support::ChildArguments &) {
    string reason;
    if (!support::enterNetworkNamespace(&reason)) {
        support::tellParent("skip " + reason);
        return 0;
    }
    EXPECT_EQ(ask(TamoOmDevmNetGetIpv4Block, 0), "none") << "the loopback is no network";
    EXPECT_TRUE(support::configureNetwork(
        "link add one index 101 type veth peer name two index 102\n"
        "link add idle type veth peer name other\n"
        "address add 192.0.2.9/24 dev idle\naddress add 192.0.2.2/24 dev two\n"
        "address add 192.0.2.1/24 dev one\nlink set two up\nlink set one up\n"));
    EXPECT_EQ(ask(TamoOmDevmNetGetIpv4Block, 0), "192.0.2.1");
    EXPECT_EQ(ask(TamoOmDevmNetGetIpv4Block, 1), "192.0.2.2");
    EXPECT_EQ(ask(TamoOmDevmNetGetIpv4Block, 2), "none");
    EXPECT_EQ(ask(TamoOmDevmNetGetIpv4Block, UINT32_MAX), "none");
    support::tellParent(testing::Test::HasFailure() ? "failed" : "good");
    return 0;
});

TEST(DeviceManagement, TellsTheAddressesOfTheNetworksInTheirOrder) {
    EXPECT_NE(TamoOmDevmNetGetIpv4Block(0, nullptr), 0);
    support::ChildProcess child("addresses");
    const string answer = child.hear();
    EXPECT_EQ(child.wait(), support::exited(0));
    if (answer.starts_with("skip")) {
        GTEST_SKIP() << answer;
    }
    EXPECT_EQ(answer, "good");
}

TEST(DeviceManagement, PrefersAnIpv6AddressThatIsNotLinkLocal) {
    const struct {
        const char *name, *address;
    } given[] = {{"lo", "::1"},
                 {"1first", "fe80::1"},
                 {"2second", "fe80::2"},
                 {"1first", "2001:db8:1111:2222:3333:4444:5555:6666"}};
    sockaddr_in6 addresses[4] = {};
    ifaddrs entries[4] = {};
    for (size_t i = 0; i < 4; i++) {
        addresses[i].sin6_family = AF_INET6;
        inet_pton(AF_INET6, given[i].address, &addresses[i].sin6_addr);
        entries[i].ifa_next = i < 3 ? &entries[i + 1] : nullptr;
        entries[i].ifa_name = const_cast<char *>(given[i].name);
        entries[i].ifa_flags = i == 0 ? IFF_UP | IFF_LOOPBACK : IFF_UP;
        entries[i].ifa_addr = reinterpret_cast<sockaddr *>(&addresses[i]);
    }
    givenInterfaces = entries;
    EXPECT_EQ(ask(TamoOmDevmNetGetIpv6Block, 0), given[3].address);
    EXPECT_EQ(ask(TamoOmDevmNetGetIpv6Block, 1), "fe80::2");
    EXPECT_EQ(ask(TamoOmDevmNetGetIpv4Block, 1), "none");
    givenInterfaces = nullptr;
}

TEST(CustomisedPaths, LeadToPrivateDirectoriesThatAreMadeAgainWhenTheyAreGone) {
    const string configuration = TamoOmCustUtilGetCfgPath(0);
    const string storage = TamoOmCustUtilGetStoragePath();
    for (const string &path : {configuration, storage}) {
        const string native = support::scratchRoot() + path;
        EXPECT_EQ(fs::status(native).permissions(), fs::perms::owner_all) << native;
    }
    const fs::path parent = fs::path(support::scratchRoot() + storage).parent_path();
    fs::remove_all(parent);
    EXPECT_EQ(TamoOmCustUtilGetStoragePath(), storage);
    EXPECT_TRUE(fs::is_directory(support::scratchRoot() + storage));
    fs::remove_all(parent);
    std::ofstream(parent) << "a file in the way";
    EXPECT_EQ(TamoOmCustUtilGetStoragePath(), nullptr);
    EXPECT_EQ(TamoOmCustUtilGetCfgPath(0), nullptr);
    fs::remove_all(parent);
}

}  // namespace
