/* See netlink_kernel.h. */
#include "netlink_kernel.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace netlink {

Kernel kernel;

}  // namespace netlink

namespace {

using netlink::kernel;
using netlink::Step;
using std::string;

template <typename Function>
Function *nextDefinition(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

uint32_t portOf(int socket) {
    sockaddr_nl address = {};
    socklen_t size = sizeof(address);
    getsockname(socket, reinterpret_cast<sockaddr *>(&address), &size);
    return address.nl_pid;
}

ssize_t fail(int error) {
    errno = error;
    return -1;
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    if (domain == AF_NETLINK && kernel.failSockets > 0) {
        kernel.failSockets--;
        return static_cast<int>(fail(EMFILE));
    }
    return nextDefinition<decltype(socket)>(__func__)(domain, type, protocol);
}

ssize_t send(int socket, const void *data, size_t size, int flags) {
    if (!kernel.replaced) {
        return nextDefinition<decltype(send)>(__func__)(socket, data, size, flags);
    }
    if (kernel.failSends > 0) {
        kernel.failSends--;
        return fail(ENOBUFS);
    }
    kernel.questions.emplace_back(static_cast<const char *>(data), size);
    kernel.read = 0;
    return static_cast<ssize_t>(size);
}

ssize_t recv(int socket, void *data, size_t size, int flags) {
    if (!kernel.replaced) {
        return nextDefinition<decltype(recv)>(__func__)(socket, data, size, flags);
    }
    const size_t question = kernel.questions.size() - 1;
    if (question >= kernel.answers.size() || kernel.read >= kernel.answers[question].size()) {
        ADD_FAILURE() << "more is read than the kernel says";
        return fail(EAGAIN);
    }
    Step step = kernel.answers[question][kernel.read++];
    if (step.error != 0) {
        return fail(step.error);
    }
    const auto *asked = reinterpret_cast<const nlmsghdr *>(kernel.questions.back().data());
    const string bytes = step.datagram.finish(asked->nlmsg_seq, portOf(socket)) + kernel.lengthen;
    memcpy(data, bytes.data(), std::min(bytes.size(), size));
    return static_cast<ssize_t>(flags & MSG_TRUNC ? bytes.size() : std::min(bytes.size(), size));
}

}  // extern "C"
