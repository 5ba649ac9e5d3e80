/* The kept sockets. Each thread has one, so that no answer meets another thread's request. The kernel
 * answers while the request is sent, so that a reply is there or on its way when the sending returns.
 * After anything unexpected the socket may hold the rest of an answer: it is closed, and the next
 * request opens a new one. */
#include "host/network/netlink_request.h"

#include <libmnl/libmnl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/base/descriptor.h"
#include "host/base/log.h"

namespace tamo::network {

namespace {

constexpr char kUnit[] = "netlink_request";

/* What the kernel puts into one datagram, unless a reader has shown a larger buffer before. */
constexpr size_t kAnswerBytes = 8192;
/* Addresses that change all the time interrupt answers all the time; somewhere it must end. */
constexpr int kAttempts = 16;
constexpr time_t kPatienceSeconds = 1;

/* What one step came to: an errno (0 for the end of a good answer), or one of these. */
constexpr int kGoesOn = -1;
constexpr int kBroken = -2;

struct KernelLine {
    ProcessDescriptor socket;
    uint32_t port = 0;
    uint32_t sequence = 0;
};

thread_local KernelLine threadLine;

int openLine(KernelLine *line) {
    Descriptor opened(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    socklen_t size = sizeof(address);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    const timeval patience = {kPatienceSeconds, 0};
    if (!opened.isOpen() || bind(opened.get(), generic, size) != 0 ||
        getsockname(opened.get(), generic, &size) != 0 ||
        setsockopt(opened.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) != 0) {
        return errno;
    }
    line->port = address.nl_pid;
    line->socket.adopt(std::move(opened));
    return 0;
}

/* The end of an answer carries the kernel's result, negated, where there is one. */
int resultOf(const nlmsghdr *message) {
    int32_t error = message->nlmsg_type == NLMSG_ERROR ? -EBADMSG : 0;
    if (mnl_nlmsg_get_payload_len(message) >= sizeof(error)) {
        memcpy(&error, mnl_nlmsg_get_payload(message), sizeof(error));
    }
    return error > 0 ? error : -error;
}

int readMessage(const KernelLine &line, const nlmsghdr *message, bool oneMessage,
                const NetlinkReader &reader) {
    const bool ours = message->nlmsg_seq == line.sequence && message->nlmsg_pid == line.port;
    if (!ours || (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
        return kBroken;
    }
    if (message->nlmsg_type == NLMSG_ERROR || message->nlmsg_type == NLMSG_DONE) {
        return resultOf(message);
    }
    if (message->nlmsg_type >= NLMSG_MIN_TYPE) {
        reader.message(message, reader.context);
        return oneMessage ? 0 : kGoesOn;
    }
    return kGoesOn;
}

/* Reads one datagram of an answer. */
int readAnswer(const KernelLine &line, bool oneMessage, const NetlinkReader &reader) {
    alignas(nlmsghdr) char answer[kAnswerBytes];
    const ssize_t received = recv(line.socket.get(), answer, sizeof(answer), MSG_TRUNC);
    if (received < 0 && errno == EINTR) {
        return kGoesOn;
    }
    /* Nothing in time, or the kernel had no memory for the answer: the next one may come through. */
    if (received <= 0 || static_cast<size_t>(received) > sizeof(answer)) {
        return kBroken;
    }
    int left = static_cast<int>(received);
    int result = kGoesOn;
    for (auto *message = reinterpret_cast<const nlmsghdr *>(answer);
         result == kGoesOn && mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left)) {
        result = readMessage(line, message, oneMessage, reader);
    }
    return result;
}

int askOnce(KernelLine *line, nlmsghdr *request, const NetlinkReader &reader) {
    request->nlmsg_seq = ++line->sequence;
    const bool oneMessage = (request->nlmsg_flags & NLM_F_DUMP) == 0;
    reader.begin(reader.context);
    while (send(line->socket.get(), request, request->nlmsg_len, 0) < 0) {
        if (errno != EINTR) {
            return kBroken;
        }
    }
    int result = kGoesOn;
    while (result == kGoesOn) {
        result = readAnswer(*line, oneMessage, reader);
    }
    return result;
}

}  // namespace

void *beginRequest(NetlinkRequest *request, uint16_t type, uint16_t flags, size_t size) {
    nlmsghdr *message = mnl_nlmsg_put_header(request->bytes);
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    return mnl_nlmsg_put_extra_header(message, size);
}

int askKernel(NetlinkRequest *request, const NetlinkReader &reader) {
    for (int attempt = 0; attempt < kAttempts; attempt++) {
        const int error = threadLine.socket.isOpen() ? 0 : openLine(&threadLine);
        if (error != 0) {
            hostRecord(
                kError, kUnit, __LINE__,
                "no socket for requests about routes and addresses (%s): look for a limit of "
                "descriptors, or a filter that forbids netlink sockets",
                strerror(error));
            return error;
        }
        const int result = askOnce(&threadLine, request->message(), reader);
        if (result != kBroken) {
            return result;
        }
        threadLine.socket.shut();
    }
    hostRecord(
        kError, kUnit, __LINE__,
        "the kernel gave no whole answer about routes or addresses in %d attempts: see whether "
        "something changes the addresses all the time (ip monitor)",
        kAttempts);
    return EAGAIN;
}

}  // namespace tamo::network
