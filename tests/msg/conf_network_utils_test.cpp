/* The choice of a local address, on routes and addresses that the test makes up. */
#include "include/conf_network_utils.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

#include <conference_testkit_gtest.h>

namespace {

using std::string;
using std::vector;

constexpr uint32_t kOther = 3; /* an interface that the route does not take */
constexpr uint32_t kBest = 7;

uint32_t ip(const char *text) {
    return inet_addr(text);
}

/* What the system would tell. */
struct Network {
    IpForwardRow route = {ip("10.0.0.0"), ip("255.255.255.0"), 0, kBest};
    vector<IpAddrRow> rows = {{ip("10.0.0.5"), kBest, ip("255.255.255.0")}};

    struct Adapter {
        uint32_t index;
        vector<const char *> addresses; /* null: an entry without an address */
    };
    vector<Adapter> adapters = {{kBest, {"2001:db8::5"}}};
    int tooSmall = 0; /* so many adapter questions are answered with a larger size first */

    /* What was asked. */
    uint32_t destination4 = 0;
    IpSocketAddress6 destination6 = {};
    vector<uint32_t> blockSizes;
    uint32_t adapterFlags = 0;
};

/* Adapters and addresses as records behind each other; the test's own size for `blocks`. */
struct AdapterBlock {
    IpAdapter adapter;
    struct {
        IpUnicastAddress unicast;
        sockaddr_in6 address;
    } entries[8];
};

void fillAdapters(const Network &network, IpAdapter *buffer) {
    auto *blocks = reinterpret_cast<AdapterBlock *>(buffer);
    for (size_t i = 0; i < network.adapters.size(); i++) {
        const auto &[index, addresses] = network.adapters[i];
        AdapterBlock &block = blocks[i];
        block.adapter.ipv6InterfaceIndex = index;
        block.adapter.next = i + 1 < network.adapters.size() ? &blocks[i + 1].adapter : nullptr;
        IpUnicastAddress **end = &block.adapter.firstUnicast;
        for (size_t j = 0; j < addresses.size(); j++) {
            auto &[unicast, address] = block.entries[j];
            address.sin6_family = AF_INET6;
            if (addresses[j] != nullptr) {
                ASSERT_EQ(inet_pton(AF_INET6, addresses[j], &address.sin6_addr), 1);
                unicast.address = reinterpret_cast<sockaddr *>(&address);
            }
            *end = &unicast;
            end = &unicast.next;
        }
    }
}

class BestLocalIp : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        tellNetwork();
    }

    void tellNetwork() {
        testkit::replace(GetBestRoute,
                         [this](uint32_t destination, uint32_t source, IpForwardRow *route) {
                             const IpForwardRow none = {};
                             EXPECT_EQ(source, 0U);
                             EXPECT_EQ(memcmp(route, &none, sizeof(none)), 0) << "not zeroed";
                             network.destination4 = destination;
                             *route = network.route;
                             return destination == UINT32_MAX ? 1U : 0U;
                         });
        testkit::replace(GetIpAddrTable, [this](IpAddrTable *table, uint32_t *size, int32_t) {
            const size_t rows = network.rows.size() * sizeof(IpAddrRow);
            if (*size < sizeof(*table) + rows) {
                *size = static_cast<uint32_t>(sizeof(*table) + rows);
                return uint32_t{IP_HELPER_TABLE_TOO_SMALL};
            }
            table->count = static_cast<uint32_t>(network.rows.size());
            if (rows != 0) {
                memcpy(table->rows, network.rows.data(), rows);
            }
            return 0U;
        });
        testkit::replace(GetBestInterfaceEx,
                         [this](const IpSocketAddress6 *destination, uint32_t *index) {
                             network.destination6 = *destination;
                             *index = kBest;
                             return 0U;
                         });
        testkit::replace(GetAdaptersAddresses, [this](uint32_t family, uint32_t flags, void *none,
                                                      IpAdapter *buffer, uint32_t *size) {
            EXPECT_EQ(family, 23U);
            EXPECT_EQ(none, nullptr);
            EXPECT_EQ(*size, network.blockSizes.back());
            network.adapterFlags = flags;
            if (network.tooSmall-- > 0) {
                *size += 1000;
                return uint32_t{IP_HELPER_ADAPTERS_TOO_SMALL};
            }
            fillAdapters(network, buffer);
            return 0U;
        });
        testkit::replace(OsMemMallocSetCharMon,
                         [this](size_t size, uint32_t a, uint32_t b, uint32_t c, uint32_t line,
                                const char *file) {
                             EXPECT_EQ(a + b + c, 0U);
                             EXPECT_STREQ(file, "conf_network_utils");
                             network.blockSizes.push_back(static_cast<uint32_t>(size));
                             return testkit::real(OsMemMallocSetCharMon)(size, a, b, c, line, file);
                         });
    }

    /* The choice for a destination, or "none" when there is none and the buffer is as it was. */
    string choose(const char *destination, uint32_t size = 64) {
        string buffer(80, '#');
        const uint32_t result = GetBestLocalIpByDestIp(destination, buffer.data(), size);
        EXPECT_EQ(buffer.find_last_not_of('#') + 1, result == 0 ? strlen(buffer.c_str()) + 1 : 0);
        EXPECT_EQ(buffer.substr(size), string(80 - size, '#')) << "written beyond " << size;
        EXPECT_LE(result, 1U);
        return result == 0 ? buffer.c_str() : "none";
    }

    Network network;
};

constexpr char kDestination4[] = "10.0.0.9";
constexpr char kDestination6[] = "2001:db8:9::7";

TEST_F(BestLocalIp, RouteAndTableDecideTogether) {
    const uint32_t net24 = ip("255.255.255.0"), net16 = ip("255.255.0.0");
    const IpForwardRow onLink = {ip("10.0.0.0"), net24, 0, kBest},
                       host = {ip("10.0.0.6"), ip("255.255.255.254"), 0, kBest},
                       gateway = {0, 0, ip("10.0.1.1"), kBest},
                       elsewhere = {ip("10.0.0.0"), net24, 0, kBest + 1};
    const vector<IpAddrRow> several = {{ip("10.0.0.77"), kOther, net24},
                                       {ip("192.168.1.5"), kBest, net24},
                                       {ip("10.0.0.5"), kBest, ip("255.0.0.0")},
                                       {ip("10.0.0.6"), kBest, net24}};
    const vector<IpAddrRow> nets = {{ip("10.0.0.5"), kBest, net24},
                                    {ip("10.0.1.5"), kOther, net24},
                                    {ip("10.0.1.6"), kBest, net24}};
    const vector<IpAddrRow> strangers = {{ip("10.0.0.1"), kOther, net24},
                                         {ip("172.16.0.5"), kBest, net24},
                                         {ip("192.168.0.5"), kBest, net24}};
    const struct {
        IpForwardRow route;
        vector<IpAddrRow> rows;
        const char *chosen;
    } cases[] = {{onLink, several, "10.0.0.5"}, /* under the route's own mask */
                 {host, several, "10.0.0.6"},
                 {gateway, nets, "10.0.1.6"}, /* under the mask of each entry */
                 {gateway, {{ip("10.0.0.5"), kBest, net16}, nets[2]}, "10.0.0.5"},
                 {onLink, strangers, "172.16.0.5"}, /* the interface's first entry */
                 {gateway, strangers, "172.16.0.5"},
                 {elsewhere, strangers, "none"},
                 {onLink, {}, "none"}};
    for (const auto &[route, rows, chosen] : cases) {
        network.route = route;
        network.rows = rows;
        EXPECT_EQ(choose(kDestination4), chosen);
        EXPECT_EQ(network.destination4, ip(kDestination4));
    }
    EXPECT_TRUE(testkit::records().empty());
}

TEST_F(BestLocalIp, TableIsReadIntoABlockOfTheSizeAskedFor) {
    EXPECT_EQ(choose(kDestination4), "10.0.0.5");
    EXPECT_EQ(network.blockSizes, (vector<uint32_t>{28, 16}));
    testkit::replace(GetIpAddrTable, [=](IpAddrTable *, uint32_t *size, int32_t) {
        *size = 16;
        return 5U; /* another failure than a table that is too small */
    });
    EXPECT_EQ(choose(kDestination4), "none");
}

TEST_F(BestLocalIp, Ipv6TakesTheFirstAddressOfTheInterfaceThatIsNotOfItsLinkOnly) {
    network.adapters = {{kOther, {"2001:db8::1"}},
                        {kBest, {nullptr, "fe80::5", "fe00::1", "2080::1"}},
                        {kBest, {"fd00::5", "2001:db8::5"}}};
    EXPECT_EQ(choose(kDestination6), "fd00::5");
    IpSocketAddress6 expected = {};
    expected.family = 23;
    inet_pton(AF_INET6, kDestination6, expected.address);
    EXPECT_EQ(memcmp(&network.destination6, &expected, sizeof(expected)), 0);
    EXPECT_EQ(network.adapterFlags, 0x13CU);
    EXPECT_EQ(network.blockSizes, vector<uint32_t>{15000});
    network.adapters.pop_back();
    EXPECT_EQ(choose(kDestination6), "none");
    network.adapters.clear();
    network.adapters.push_back({kBest, {}});
    EXPECT_EQ(choose(kDestination6), "none");
    EXPECT_TRUE(testkit::records().empty());
}

TEST_F(BestLocalIp, AdapterBufferIsEnlargedTwiceAtMost) {
    network.tooSmall = 2;
    EXPECT_EQ(choose(kDestination6), "2001:db8::5");
    EXPECT_EQ(network.blockSizes, (vector<uint32_t>{15000, 16000, 17000}));
    network.tooSmall = 3;
    EXPECT_EQ(choose(kDestination6), "none");
    EXPECT_EQ(testkit::callCount(GetAdaptersAddresses), 6U);
}

TEST_F(BestLocalIp, BuffersOfEverySizeAreFilledOrLeftAlone) {
    network.adapters = {{kBest, {"2001:db8::5"}}, {kBest, {"::5"}}};
    for (uint32_t size = 1; size <= 16; size++) {
        EXPECT_EQ(choose(kDestination4, size), size > 8 ? "10.0.0.5" : "none");
        EXPECT_EQ(choose(kDestination6, size), size > 11  ? "2001:db8::5"
                                               : size > 3 ? "::5"
                                                          : "none")
            << "the first that fits";
    }
}

TEST_F(BestLocalIp, EveryFailureReleasesEverythingAndIsNotRecorded) {
    const auto setup = [this] {
        network = {};
        network.tooSmall = 2;
        tellNetwork();
    };
    const auto failed = [](uint64_t, const string &chosen) {
        EXPECT_EQ(chosen, "none");
        EXPECT_TRUE(testkit::records().empty());
    };
    const auto worked = [](const string &chosen) { EXPECT_NE(chosen, "none"); };
    const auto count = [&](const char *operation, const char *destination) {
        return testkit::forEachFailure(
            operation, setup, [&] { return choose(destination); }, failed, worked);
    };
    EXPECT_EQ(count("GetBestRoute", kDestination4), 1U);
    EXPECT_EQ(count("GetIpAddrTable", kDestination4), 2U);
    EXPECT_EQ(count("OsMemMallocSetCharMon", kDestination4), 2U);
    EXPECT_EQ(count("GetBestInterfaceEx", kDestination6), 1U);
    EXPECT_EQ(count("GetAdaptersAddresses", kDestination6), 3U);
    EXPECT_EQ(count("OsMemMallocSetCharMon", kDestination6), 3U);
    EXPECT_EQ(count("memcpy_s", kDestination6), 1U);
}

TEST_F(BestLocalIp, MissingArgumentsAreRecordedAndHostileTextsHaveNoRoute) {
    char out[64] = "untouched";
    EXPECT_EQ(GetBestLocalIpByDestIp(nullptr, out, sizeof(out)) +
                  GetBestLocalIpByDestIp("", out, sizeof(out)) +
                  GetBestLocalIpByDestIp(kDestination4, nullptr, sizeof(out)) +
                  GetBestLocalIpByDestIp(kDestination4, out, 0),
              4U);
    EXPECT_STREQ(out, "untouched");
    EXPECT_EQ(testkit::records().size(), 4U);
    EXPECT_TRUE(testkit::hasRecord(1, "conf_network_utils",
                                   "[GetBestLocalIpByDestIp]GetBestLocalIpByDestIp param error!"));
    for (const string &text : {string(10 << 20, '1'), string(10 << 20, ':'), string("10.0.0.256"),
                               string("2001:db8::5%eth0"), string("%s%n%x"), string("\xff\xfe")}) {
        EXPECT_EQ(choose(text.c_str()), "none") << text.substr(0, 20);
        EXPECT_EQ(network.destination4, UINT32_MAX);
    }
    EXPECT_EQ(testkit::callCount(GetBestInterfaceEx), 0U);
    EXPECT_TRUE(network.blockSizes.empty());
}

}  // namespace
