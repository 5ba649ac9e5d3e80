/* Address texts: the device's family numbers in front of the system's conversions. */
#include "platform/tamo_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr int32_t kDeviceIpv4 = 2;
constexpr int32_t kDeviceIpv6 = 23;

}  // namespace

int32_t KIRU_Inet_Pton(int32_t family, const char *text, void *buffer16) {
    if (buffer16 == nullptr || (family != kDeviceIpv4 && family != kDeviceIpv6)) {
        return -1;
    }
    if (text == nullptr) {
        return 0;
    }
    return inet_pton(family == kDeviceIpv4 ? AF_INET : AF_INET6, text, buffer16);
}

uint32_t KIRU_InetAddr(const char *text) {
    in_addr address{};
    if (text == nullptr || inet_pton(AF_INET, text, &address) != 1) {
        return INADDR_NONE;
    }
    return address.s_addr;
}

int32_t MOX_Socket_Get_AF_INET6(void) {
    return AF_INET6;
}
