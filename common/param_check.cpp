/* Checks and small conversions of texts. */
#include "include/param_check.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_socket.h"

namespace {

constexpr char kUnit[] = "param_check";

constexpr int32_t kFamilyIpv4 = 2;
constexpr int32_t kFamilyIpv6 = 23;
constexpr size_t kLongestTrimmed = 65535;

constexpr char kDigits[] = "0123456789";
constexpr char kAllowed[] =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ "
    "!#$%&'()*+,-.:;<=>?@_`~|^{}/";

bool isAddress(int32_t family, const char *text) {
    unsigned char address[16] = {};
    return KIRU_Inet_Pton(family, text, address) > 0;
}

bool isWhite(char c) {
    return (c >= '\t' && c <= '\r') || c == ' ';
}

void ConfTrimLeft(char *text) {
    const size_t length = strlen(text);
    size_t leading = 0;
    while (isWhite(text[leading])) {
        leading++;
    }
    const int error = memmove_s(text, length + 1, text + leading, length - leading + 1);
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "secure func failed, err = %d!\n", error);
    }
}

void ConfTrimRight(char *text) {
    size_t length = strlen(text);
    if (length == 0) {
        CONF_LOG(CONF_LOG_ERROR, "Invalid param.");
        return;
    }
    while (length > 0 && isWhite(text[length - 1])) {
        length--;
    }
    text[length] = '\0';
}

}  // namespace

uint32_t ConfParamCheckContainValidChar(const char *text, uint32_t digitsOnly) {
    if (text == nullptr || *text == '\0') {
        return 1;
    }
    const size_t accepted = strspn(text, digitsOnly != 0 ? kDigits : kAllowed);
    return text[accepted] == '\0' ? 0 : 1;
}

uint32_t ConfParamCheckValidIp(const char *text) {
    if (text == nullptr) {
        return 1;
    }
    return isAddress(kFamilyIpv4, text) || isAddress(kFamilyIpv6, text) ? 0 : 1;
}

int32_t ConfParamCheckIpType(const char *text) {
    if (text == nullptr) {
        return -1;
    }
    if (isAddress(kFamilyIpv4, text)) {
        return kFamilyIpv4;
    }
    return isAddress(kFamilyIpv6, text) ? MOX_Socket_Get_AF_INET6() : -1;
}

uint32_t ConfParamGetCharNum(const char *text, uint32_t byteLength) {
    if (text == nullptr) {
        return 0;
    }
    uint32_t count = 0;
    for (uint64_t i = 0; i < byteLength; count++) {
        const auto lead = static_cast<unsigned char>(text[i]);
        if (lead >= 0xE0 && lead <= 0xEF) {
            i += 3;
        } else if (lead >= 0xC0 && lead <= 0xDF) {
            i += 2;
        } else {
            i += 1;
        }
    }
    return count;
}

int32_t ConfGetAtoi(const char *text, int32_t defaultValue) {
    errno = 0;
    char *end = nullptr;
    const long number = text == nullptr ? 0 : strtol(text, &end, 0);
    const bool whole = text != nullptr && end != text && *end == '\0';
    /* long is wider than the result on some builds, so its own range check does not do. */
    if (!whole || errno == ERANGE || number < INT32_MIN || number > INT32_MAX) {
        CONF_LOG(CONF_LOG_ERROR, "strtol failed. defaultValue:%d", defaultValue);
        return defaultValue;
    }
    return static_cast<int32_t>(number);
}

void ConfTrim(char *text) {
    if (text == nullptr || strlen(text) > kLongestTrimmed) {
        CONF_LOG(CONF_LOG_ERROR, "Invalid param.");
        return;
    }
    ConfTrimLeft(text);
    ConfTrimRight(text);
}
