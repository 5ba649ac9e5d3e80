/* The user-interface process: it asks the conference process for configuration values and changes some.
 *
 * Start example_conference first (scripts/demo does both). A request has six steps:
 *
 *     1. the requester builds a message block whose body lists keys,
 *     2. it sends the block with the handler that shall run, and waits,
 *     3. the conference process's message loop hands the message to ConfCommMsgProcess,
 *     4. the handler reads the values and hangs a result list on the block,
 *     5. ConfCommMsgProcess sends the block back with the handler's result,
 *     6. the requester reads the result list, and releases it and the block.
 *
 * The program checks what it gets; its exit code is 1 when anything is not as it should be.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "conf_config.h"
#include "conf_log_adapter.h"
#include "conf_msg_api.h"
#include "tamo_os_mem.h"

namespace {

constexpr const char *kUnit = "user_interface";
constexpr const char *kReceiver = "Conference"; /* the queue that the conference process serves */
constexpr uint32_t kTimeoutMs = 3000;
constexpr uint32_t kInvalidBlock = 0xFFFFFFFF; /* how the list handlers refuse a block */

constexpr const char *kPassword = "correct horse battery staple";

using Items = std::vector<ConfConfigListItem>;

bool allAsExpected = true;

void expect(bool condition, const char *what) {
    if (!condition) {
        allAsExpected = false;
        printf("[user]           NOT AS EXPECTED: %s (tamoctl log may tell why)\n", what);
    }
}

/* Everything that GenerateMeetingServerMsgBlock and handlers hand out goes back this way. */
void release(void *block) {
    OSMemTypeFreeMon(block, 0, 0, __LINE__, kUnit);
}

/* Step 1: a block that is about `items`. */
MeetingServerMsgBlock *makeBlock(const Items &items) {
    const auto bytes = static_cast<uint32_t>(items.size() * sizeof(items[0]));
    MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock(items.data(), bytes);
    if (block == nullptr) {
        fprintf(stderr, "no memory for a message block\n");
        exit(1);
    }
    block->itemCount = static_cast<uint32_t>(items.size());
    return block;
}

/* Steps 2 to 5, seen from here: one call. Its result is the handler's, or CONF_COMM_ERR_FAILED. The
 * handler is a function of the library, which both processes load, so both know it. */
uint32_t request(ConfMsgHandler handler, MeetingServerMsgBlock *block) {
    return ConfCommMsgSynSendImplHaveResp(kReceiver, handler, 0, block,
                                          GetMeetingServerMsgBlockSize(block), kTimeoutMs);
}

/* A whole request for values: returns the result list, empty when it failed. */
Items readValues(const Items &keys) {
    MeetingServerMsgBlock *block = makeBlock(keys);
    const uint32_t result = request(ConfConfigGetConfConfig, block);
    expect(result == 0, "the values can be read");

    // Step 6. The list crossed with the response and is this process's own now.
    Items values;
    if (block->resultList != nullptr) {
        const auto *list = static_cast<const ConfConfigListItem *>(block->resultList);
        values.assign(list, list + block->resultSize / sizeof(*list));
        release(block->resultList);
    }
    release(block);
    return values;
}

void print(const Items &values) {
    for (const ConfConfigListItem &item : values) {
        printf("[user]           %s = %s\n", item.key, item.value);
    }
}

/* ---- the tour ---- */

void readList() {
    printf("[user]    --- ask for a list of values\n");
    const Items keys = {{"Conf.SIPCallParam.sipServerAddr", ""},
                        {"Conf.SIPCallParam.sipUserName", ""},
                        {"Conf.Display.brightness", ""}};
    printf(
        "[user]        1. a block with %zu keys, each in a record of %zu bytes\n"
        "[user]        2. sent to \"%s\" with the handler ConfConfigGetConfConfig; waiting\n",
        keys.size(), sizeof(keys[0]), kReceiver);
    const Items values = readValues(keys);
    printf("[user]        6. the result list, now released:\n");
    print(values);
    expect(values.size() == 3 && strcmp(values[2].value, "80") == 0, "three values came back");
}

void changeValues() {
    printf("[user]    --- change two values in one request\n");
    const Items changes = {{"Conf.SIPCallParam.sipServerAddr", "sip2.example.com"},
                           {"Conf.Display.brightness", "65"}};
    MeetingServerMsgBlock *block = makeBlock(changes);
    expect(request(ConfConfigSetConfConfig, block) == 0, "the values are stored");
    release(block);

    const Items values = readValues({{"Conf.SIPCallParam.sipServerAddr", ""}});
    print(values);
    expect(values.size() == 1 && strcmp(values[0].value, "sip2.example.com") == 0,
           "the new address comes back");

    // The store is shared: a single value needs no message.
    const int32_t brightness = ConfConfigGetIntValue("Conf.Display.brightness");
    printf("[user]           read directly, without a message: Conf.Display.brightness is %d\n",
           brightness);
    expect(brightness == 65, "the store has the new brightness");
}

void changePassword() {
    printf("[user]    --- set a password\n");
    ConfConfigListItem item = {"Conf.SIPCallParam.sipPwd", ""};
    snprintf(item.value, sizeof(item.value), "%s", kPassword);
    MeetingServerMsgBlock *block = makeBlock({item});
    const auto *sent = reinterpret_cast<const ConfConfigListItem *>(block->body);
    printf("[user]           in the block before the request: \"%s\"\n", sent->value);
    expect(request(ConfConfigSetConfConfig, block) == 0, "the password is stored");

    // The block came back with the response, the plain text wiped out of it.
    const bool wiped =
        std::all_of(sent->value, sent->value + sizeof(sent->value), [](char c) { return c == 0; });
    printf("[user]           in the block after the request:  \"%s\"\n", sent->value);
    expect(wiped, "all 1024 bytes of the block's value are zero");
    release(block);

    const Items stored = readValues({{"Conf.SIPCallParam.sipPwd", ""}});
    expect(stored.size() == 1 && stored[0].value[0] != 0 &&
               strstr(stored[0].value, kPassword) == nullptr,
           "the store holds the password encrypted only");
    printf("[user]           in the store, encrypted:\n");
    print(stored);
}

void meetTheLimit() {
    printf("[user]    --- how many items a block may ask for\n");
    const ConfConfigListItem key = {"Conf.SIPCallParam.sipServerAddr", ""};
    const Items values = readValues(Items(500, key));
    printf("[user]           500 items: %zu values\n", values.size());
    expect(values.size() == 500, "500 items are accepted");

    MeetingServerMsgBlock *block = makeBlock(Items(501, key));
    const uint32_t result = request(ConfConfigGetConfConfig, block);
    printf("[user]           501 items: refused with 0x%X, see the log\n", result);
    expect(result == kInvalidBlock && block->resultList == nullptr, "501 items are refused");
    release(block);
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (ConfLogInit() != 0) {
        fprintf(stderr, "the log cannot be opened: look at TAMO_DEVICE_ROOT\n");
        return 1;
    }
    readList();
    changeValues();
    changePassword();
    meetTheLimit();
    ConfLogPrintf(CONF_LOG_INFO, __func__, kUnit, __LINE__, "the tour is over");
    ConfLogUnInit();
    printf("[user]    --- %s\n", allAsExpected ? "all as expected" : "something went wrong");
    return allAsExpected ? 0 : 1;
}
