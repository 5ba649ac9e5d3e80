/* A kernel that answers questions about routes and addresses the way a test wants it to. Linked into a
 * test program that exports its symbols: the host's socket calls on netlink sockets pass this file's
 * definitions. */
#pragma once
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace netlink {

/* One datagram of an answer under construction. */
class Datagram {
  public:
    template <typename Header>
    Datagram &begin(uint16_t type, const Header &header, uint16_t flags = 0) {
        last_ = used_;
        nlmsghdr *message = mnl_nlmsg_put_header(bytes_ + used_);
        message->nlmsg_type = type;
        message->nlmsg_flags = flags;
        memcpy(mnl_nlmsg_put_extra_header(message, sizeof(header)), &header, sizeof(header));
        used_ = last_ + MNL_ALIGN(message->nlmsg_len);
        return *this;
    }

    Datagram &put(uint16_t attribute, const void *value, size_t size) {
        mnl_attr_put(last(), attribute, size, value);
        used_ = last_ + MNL_ALIGN(last()->nlmsg_len);
        return *this;
    }

    Datagram &address(uint16_t attribute, const char *text) {
        in6_addr value;
        const int family = strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
        EXPECT_EQ(inet_pton(family, text, &value), 1);
        return put(attribute, &value, family == AF_INET6 ? 16 : 4);
    }

    Datagram &index(uint32_t value) { return put(RTA_OIF, &value, sizeof(value)); }

    Datagram &done(int32_t result = 0) { return begin(NLMSG_DONE, result); }

    nlmsghdr *last() { return reinterpret_cast<nlmsghdr *>(bytes_ + last_); }

    /* The bytes, addressed to the asker. What a test put into the two fields makes them wrong. */
    std::string finish(uint32_t sequence, uint32_t port) {
        int left = static_cast<int>(used_);
        for (auto *each = reinterpret_cast<nlmsghdr *>(bytes_); mnl_nlmsg_ok(each, left);
             each = mnl_nlmsg_next(each, &left)) {
            each->nlmsg_seq += sequence;
            each->nlmsg_pid += port;
        }
        return std::string(bytes_, used_);
    }

  private:
    alignas(nlmsghdr) char bytes_[8192] = {};
    size_t used_ = 0, last_ = 0;
};

/* One step of an answer: a datagram, or an errno. */
struct Step {
    int error = 0;
    Datagram datagram;
};

/* What the next questions meet. The real kernel answers until `replaced` is set. */
struct Kernel {
    bool replaced = false;
    std::vector<std::vector<Step>> answers; /* to one question each */
    std::vector<std::string> questions;     /* as they came */
    size_t read = 0;                        /* steps of the current answer */
    int failSends = 0, failSockets = 0;     /* so many of the next calls */
    std::string lengthen; /* bytes behind a datagram that do not fit the reader's buffer */
};
extern Kernel kernel;

}  // namespace netlink
