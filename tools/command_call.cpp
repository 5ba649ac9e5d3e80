/* tamoctl call: sends a message as a program would, and prints what came back. */
#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "commands.h"
#include "conf_config.h"
#include "conf_msg_api.h"
#include "output.h"
#include "tamo_host.h"
#include "tamo_os_mem.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

constexpr const char *kUnit = "tamoctl";
constexpr uint32_t kDefaultTimeoutMs = 3000;

struct BlockRelease {
    void operator()(void *block) const { OSMemTypeFreeMon(block, 0, 0, __LINE__, kUnit); }
};
using Block = std::unique_ptr<MeetingServerMsgBlock, BlockRelease>;
using List = std::unique_ptr<void, BlockRelease>;

struct Call {
    const char *queue;
    ConfMsgHandler handler;
    uint32_t param, timeoutMs;
    bool json;
};

bool readNumber(std::string_view text, uint64_t most, uint64_t *number) {
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const char *begin = text.data() + (isHex ? 2 : 0), *end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(begin, end, *number, isHex ? 16 : 10);
    return error == std::errc() && parsed == end && *number <= most;
}

/* The address of MODULE:FUNCTION or MODULE:0xOFFSET in this process; the receiver has another. */
ConfMsgHandler findHandler(const Command &command, const char *name) {
    const char *colon = strrchr(name, ':');
    if (colon == nullptr || colon == name || colon[1] == 0) {
        failUsage(command, "invalid handler '%s': must be MODULE:FUNCTION", name);
    }
    const std::string module(name, colon);
    void *handle = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        fail(command, "cannot load the module: %s", dlerror());
    }
    uint64_t offset = 0;
    if (strncmp(colon + 1, "0x", 2) == 0 && readNumber(colon + 1, UINTPTR_MAX, &offset)) {
        link_map *map = nullptr;
        dlinfo(handle, RTLD_DI_LINKMAP, &map);
        return reinterpret_cast<ConfMsgHandler>(static_cast<uintptr_t>(map->l_addr + offset));
    }
    void *function = dlsym(handle, colon + 1);
    if (function == nullptr) {
        fail(command, "'%s' exports no function '%s'", module.c_str(), colon + 1);
    }
    return reinterpret_cast<ConfMsgHandler>(function);
}

/* TEXT, or the bytes of @FILE. */
std::string readData(const Command &command, const char *text) {
    if (text == nullptr || text[0] != '@') {
        return text == nullptr ? "" : text;
    }
    std::ifstream file(text + 1, std::ios::binary);
    if (!file) {
        fail(command, "cannot open '%s': %s", text + 1, strerror(errno));
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

/* Text where it is one, else its bytes in hexadecimal. */
std::string dataText(std::string_view data) {
    std::string_view text = data;
    while (text.ends_with('\0')) {
        text.remove_suffix(1);
    }
    if (isUtf8(text) && text.find('\0') == std::string_view::npos) {
        return std::string(text);
    }
    std::string hex;
    char digits[4];
    for (const char c : data) {
        snprintf(digits, sizeof(digits), "%02x ", static_cast<unsigned char>(c));
        hex += digits;
    }
    hex.pop_back();
    return hex;
}

void print(const Call &call, uint32_t result, std::string_view data,
           std::span<const ConfConfigListItem> list) {
    const Json json(cJSON_CreateObject());
    addNumber(json.get(), "result", result);
    if (!call.json) {
        printf("result %u\n", result);
    }
    if (!data.empty()) {
        addText(json.get(), "data", dataText(data));
    }
    if (!data.empty() && !call.json) {
        printf("data %s\n", printable(dataText(data)).c_str());
    }
    cJSON *values = list.empty() ? nullptr : cJSON_AddObjectToObject(json.get(), "values");
    for (const ConfConfigListItem &item : list) {
        const std::string key(item.key, strnlen(item.key, sizeof(item.key)));
        const std::string value(item.value, strnlen(item.value, sizeof(item.value)));
        addText(values, key.c_str(), value);
        if (!call.json) {
            printf("%s\t%s\n", printable(key).c_str(), printable(value).c_str());
        }
    }
    if (call.json) {
        printJsonLine(json);
    }
}

/* The failure code of the messages may come from the handler too; the record tells which. */
void failUnanswered(const Command &command, uint32_t result) {
    if (result == CONF_COMM_ERR_FAILED) {
        fail(command, "the message was not sent or not answered (result %u)", result);
    }
}

uint32_t callWithData(const Command &command, const Call &call, std::string data) {
    const uint32_t result = ConfCommMsgSynSendImpl(
        call.queue, call.handler, call.param, data.empty() ? nullptr : data.data(),
        static_cast<uint32_t>(data.size()), call.timeoutMs);
    failUnanswered(command, result);
    print(call, result, data, {});
    return result;
}

uint32_t callWithBlock(const Command &command, const Call &call,
                       const std::vector<const char *> &keys) {
    std::vector<ConfConfigListItem> items(keys.size());
    for (size_t at = 0; at < keys.size(); at++) {
        if (strlen(keys[at]) >= sizeof(items[at].key)) {
            failUsage(command, "invalid key '%.40s': must have at most %zu bytes", keys[at],
                      sizeof(items[at].key) - 1);
        }
        snprintf(items[at].key, sizeof(items[at].key), "%s", keys[at]);
    }
    const Block block(GenerateMeetingServerMsgBlock(
        items.data(), static_cast<uint32_t>(items.size() * sizeof(items[0]))));
    if (block == nullptr) {
        fail(command, "out of memory for the message block");
    }
    block->itemCount = static_cast<uint32_t>(items.size());
    const uint32_t result =
        ConfCommMsgSynSendImplHaveResp(call.queue, call.handler, call.param, block.get(),
                                       GetMeetingServerMsgBlockSize(block.get()), call.timeoutMs);
    failUnanswered(command, result);
    const List list(block->resultList);
    const auto *first = static_cast<const ConfConfigListItem *>(list.get());
    const bool isList = list != nullptr && block->resultSize % sizeof(*first) == 0;
    const std::string_view bytes(static_cast<const char *>(list.get()),
                                 list == nullptr || isList ? 0 : block->resultSize);
    print(call, result, bytes,
          {first, isList ? block->resultSize / sizeof(ConfConfigListItem) : 0});
    return result;
}

}  // namespace

int runCall(const Command &command, const Arguments &arguments) {
    const std::span<char *const> words = arguments.operands();
    if (words.size() < 2) {
        failUsage(command, "a queue and MODULE:FUNCTION are wanted");
    }
    uint64_t param = 0;
    if (words.size() > 2 && !readNumber(words[2], UINT32_MAX, &param)) {
        failUsage(command, "invalid parameter '%s': must be 0 to %u", words[2], UINT32_MAX);
    }
    const std::vector<const char *> keys = arguments.texts("block");
    if (!keys.empty() && arguments.has("data")) {
        failUsage(command, "--data and --block exclude each other");
    }
    const std::string data = readData(command, arguments.text("data"));
    const Call call = {words[0], findHandler(command, words[1]), static_cast<uint32_t>(param),
                       static_cast<uint32_t>(std::min<uint64_t>(
                           arguments.number("timeout", 1).value_or(kDefaultTimeoutMs), INT32_MAX)),
                       arguments.has("json")};
    requireRoot(command);
    const std::vector<std::string> queues = queueNames();
    if (std::find(queues.begin(), queues.end(), call.queue) == queues.end()) {
        fail(command, "no process serves the queue '%s'%s", call.queue,
             suggestion(call.queue, queues).c_str());
    }
    const uint32_t result =
        keys.empty() ? callWithData(command, call, data) : callWithBlock(command, call, keys);
    return result == 0 ? kSuccess : kFailed;
}

}  // namespace tamoctl
