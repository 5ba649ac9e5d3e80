/* The choice of a local address beside what a program without it would do: open a datagram socket,
 * connect it, ask for its local address and close it. No packet is sent for that. Runs in a network of
 * its own, with a gateway on each family's network, and once more with 10,000 routes of each family. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "bench/take_turns.h"
#include "include/conf_network_utils.h"
#include "platform/ip_helper.h"
#include "tests/support/network_namespace.h"

namespace {

constexpr char kDestination4[] = "198.51.100.7";
constexpr char kLocal4[] = "10.0.0.5";
constexpr char kDestination6[] = "2001:db8:9::7";
constexpr char kLocal6[] = "2001:db8::5";
constexpr size_t kRuns = 10;

using bench::require;

/* The local address that a datagram socket gets towards a destination, as a text. */
template <typename Address, typename Member>
void askSocket(int family, Address destination, Member address, const char *expected) {
    const int opened = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    auto *generic = reinterpret_cast<sockaddr *>(&destination);
    socklen_t size = sizeof(destination);
    char text[INET6_ADDRSTRLEN];
    require(opened >= 0 && connect(opened, generic, size) == 0 &&
                getsockname(opened, generic, &size) == 0 &&
                inet_ntop(family, &(destination.*address), text, sizeof(text)) != nullptr &&
                strcmp(text, expected) == 0,
            "asking a socket for its address");
    close(opened);
}

void askSocket4() {
    sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(5060);
    inet_pton(AF_INET, kDestination4, &destination.sin_addr);
    askSocket(AF_INET, destination, &sockaddr_in::sin_addr, kLocal4);
}

void askSocket6() {
    sockaddr_in6 destination = {};
    destination.sin6_family = AF_INET6;
    destination.sin6_port = htons(5060);
    inet_pton(AF_INET6, kDestination6, &destination.sin6_addr);
    askSocket(AF_INET6, destination, &sockaddr_in6::sin6_addr, kLocal6);
}

void choose(const char *destination, const char *expected) {
    char text[INET6_ADDRSTRLEN];
    require(
        GetBestLocalIpByDestIp(destination, text, sizeof(text)) == 0 && strcmp(text, expected) == 0,
        "choosing the expected address");
}

void askRoute() {
    IpForwardRow route;
    require(GetBestRoute(inet_addr(kDestination4), 0, &route) == 0 &&
                route.nextHop == inet_addr("10.0.0.1"),
            "finding the expected route");
}

void compareBoth(const std::string &network) {
    const std::string ipv4 = "IPv4, " + network;
    bench::compare({.title = ipv4.c_str(), .runs = kRuns},
                   {{"socket, connect, getsockname, close", 0, askSocket4},
                    {"GetBestLocalIpByDestIp", 3, [] { choose(kDestination4, kLocal4); }},
                    {"GetBestRoute alone", 0, askRoute}});
    const std::string ipv6 = "IPv6, " + network;
    bench::compare({.title = ipv6.c_str(), .runs = kRuns},
                   {{"socket, connect, getsockname, close", 0, askSocket6},
                    {"GetBestLocalIpByDestIp", 3, [] { choose(kDestination6, kLocal6); }}});
}

std::string manyRoutes() {
    std::string lines;
    for (int i = 0; i < 10000; i++) {
        lines += "route add 172." + std::to_string(16 + i / 4096) + "." +
                 std::to_string(i / 16 % 256) + "." + std::to_string(i % 16 * 16) +
                 "/28 via 10.0.0.1\nroute add 2001:db8:ff:" + std::to_string(i) +
                 "::/64 via 2001:db8::1\n";
    }
    return lines;
}

}  // namespace

int main() {
    std::string reason;
    if (!support::enterNetworkNamespace(&reason)) {
        std::fprintf(stderr, "network_bench: %s\n", reason.c_str());
        return 1;
    }
    require(support::configureNetwork("link add net0 type veth peer name net1\n"
                                      "addr add 10.0.0.5/24 dev net0\n"
                                      "addr add 2001:db8::5/64 dev net0 nodad\n"
                                      "link set net0 up\nlink set net1 up\n"
                                      "route add default via 10.0.0.1\n"
                                      "route add default via 2001:db8::1\n"),
            "setting up the network");
    compareBoth("a few routes");
    require(support::configureNetwork(manyRoutes()), "adding the routes");
    compareBoth("10,000 routes");
    return bench::finish();
}
