/* What a log may show of a value, and how a text becomes a variable:
 *
 *     example_masks_and_values
 */
#include <cstdio>
#include <cstring>

#include "conf_config_value.h"
#include "conf_mask_keyword.h"
#include "tamo_os_mem.h"

namespace {

/* ---- masks ---- */

void showMasked(const char *text) {
    char masked[CONF_MASK_SIZE];
    char address[CONF_MASK_SIZE];
    if (ConfFilterStr(text, masked, sizeof(masked)) == 0 &&
        ConfFilterIPAddrStr(text, address, sizeof(address)) == 0) {
        printf("%-32s as a text %-12s as an address %s\n", text, masked, address);
    }
}

/* A message of the call signalling, fit for the log. */
bool showSignalling() {
    char message[] =
        "INVITE from 192.168.1.10\r\nTo: <tel:5550123456>\r\nVia: 192.168.1.10;branch=7\r\n";
    ConfFilterNonSecurityWordEx(message, "tel:", ">");

    ConfFilterSetIPStr("192.168.1.10");  // once, at start-up
    char *masked = nullptr;
    uint32_t length = 0;
    const bool good = ConfReplaceIPAddrStr(message, &masked, &length) == 0;
    if (good) {
        printf("%s", masked);
    }
    if (masked != nullptr) {
        OSMemTypeFreeMon(masked, 0, 0, __LINE__, "masks_and_values");
    }
    return good && strstr(message, "tel:5550****56>") != nullptr;
}

/* ---- values ---- */

/* Stores a text in a variable of any type and width. */
template <typename Variable>
int32_t store(const char *text, Variable &variable, ConfConfigValueType type) {
    ConfConfigValue value;
    ConfConfigStr2V(&value, text);
    const int32_t result = ConfConfigV2DByType(&value, &variable, sizeof(variable), type);

    char now[64] = "";
    ConfConfigD2VByType(&value, &variable, sizeof(variable), type);
    ConfConfigV2Str(&value, now, sizeof(now));
    const char *const results[] = {"failed", "changed", "as it was"};
    printf("\"%s\" into %zu bytes: %s, now %s\n", text, sizeof(variable), results[result + 1], now);
    return result;
}

}  // namespace

int main() {
    showMasked("meeting-room-4");
    showMasked("192.168.1.10");
    showMasked("2001:db8:85a3:0:0:8a2e:370:7334");
    bool good = showSignalling();

    uint16_t port = 5060;
    uint8_t muted = 0;
    float gain = 1;
    char name[16] = "Room 4";
    good = store("5061", port, CONF_VALUE_UINT) == 0 && good;
    good = store("5061", port, CONF_VALUE_UINT) == 1 && good;
    good = store("true", muted, CONF_VALUE_BOOL) == 0 && good;
    good = store("0.5", gain, CONF_VALUE_FLOAT) == 0 && good;
    good = store("ROOM 4", name, CONF_VALUE_STR) == 1 && good;
    good = store("a name that is too long", name, CONF_VALUE_STR) == -1 && good;
    return good ? 0 : 1;
}
