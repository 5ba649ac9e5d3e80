/* Requests to the kernel's routing tables over netlink: one is sent, its answer is read to the end. */
#pragma once
#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>

namespace tamo::network {

/* A request under construction: a message with room for what the requests of this host hold. */
struct NetlinkRequest {
    alignas(nlmsghdr) char bytes[128];

    nlmsghdr *message() { return reinterpret_cast<nlmsghdr *>(bytes); }
};

/* Begins a request of `type` and returns the `size` zero bytes of its own header. */
void *beginRequest(NetlinkRequest *request, uint16_t type, uint16_t flags, size_t size);

/* Who reads an answer. `begin` is called before the first message of every attempt and forgets what
 * an earlier one told. `message` gets the messages that carry data. */
struct NetlinkReader {
    void (*begin)(void *context);
    void (*message)(const nlmsghdr *message, void *context);
    void *context;
};

/* Asks, as often as it takes to get a whole answer that nothing changed underneath. 0, or the errno of
 * the kernel's refusal or of what stood in the way of asking, which is recorded. Any thread may ask;
 * each keeps a socket of its own, in the network namespace in which it first asked. */
int askKernel(NetlinkRequest *request, const NetlinkReader &reader);

}  // namespace tamo::network
