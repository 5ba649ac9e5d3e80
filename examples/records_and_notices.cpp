/* Log records, checks of texts, single configuration values, and notifications to the hosting
 * application:
 *
 *     example_records_and_notices
 */
#include <cstdio>
#include <cstring>
#include <string>

#include "conf_config.h"
#include "conf_log_adapter.h"
#include "conf_msg_api.h"
#include "param_check.h"

namespace {

constexpr uint32_t kJoined = 7;
constexpr uint32_t kAddressBook = 8;
uint32_t bytesReceived;

/* The application's one callback; large data comes in packets. */
uint32_t onNotification(uint32_t notifyId, const void *, uint32_t dataLength, uint32_t result) {
    printf("notification %u: %u bytes, result %u\n", notifyId, dataLength, result);
    bytesReceived += dataLength;
    return 0;
}

bool checkTexts() {
    bool good = true;
    for (const char *address : {"192.168.1.10", "2001:db8::1", "meeting-room-4"}) {
        const bool valid = ConfParamCheckValidIp(address) == 0;
        printf("%s is %s address\n", address, valid ? "an" : "no");
        good = good && valid == (strchr("12", address[0]) != nullptr);
    }
    char padded[] = "  5061 ";
    ConfTrim(padded);
    return good && ConfGetAtoi(padded, 5060) == 5061 && ConfGetAtoi("none", 5060) == 5060;
}

bool keepValue() {
    uint64_t timeoutMs = 0;
    return ConfConfigSetUint64Value("Conf.Display.timeoutMs", 30000) == 0 &&
           ConfConfigGetUint64Value("Conf.Display.timeoutMs", &timeoutMs) == 0 &&
           timeoutMs == 30000;
}

bool notify() {
    ConfRegisterNotifyFunc(onNotification);
    const char site[] = "Berlin";
    const std::string book(1000000, 'x');
    return ConfCommSendNotifyToApp(kJoined, site, sizeof(site)) == 0 &&
           ConfCommSendMultiPackNotifyToApp(kAddressBook, book.data(),
                                            static_cast<uint32_t>(book.size())) == 0 &&
           bytesReceived >= sizeof(site) + book.size();
}

}  // namespace

int main() {
    ConfLogInit();
    ConfLogPrintf(CONF_LOG_INFO, __func__, "my_unit", __LINE__, "joined with %u sites", 3U);
    ConfLogPrintf(CONF_LOG_DEBUG, __func__, "my_unit", __LINE__, "suppressed at level %u",
                  GetLogLevel());
    bool good = checkTexts();
    good = keepValue() && good;
    good = notify() && good;
    ConfLogUnInit();
    return good ? 0 : 1;
}
