/* A request in JSON is read with defaults, and answered in JSON:
 *
 *     example_json_messages
 */
#include <cjson/cJSON.h>

#include <cstdio>
#include <memory>
#include <string>

#include "conf_json.h"
#include "conf_log_adapter.h"

namespace {

struct TreeDelete {
    void operator()(cJSON *tree) const { cJSON_Delete(tree); }
};
using Tree = std::unique_ptr<cJSON, TreeDelete>;

constexpr char kRequest[] = R"({
    "id": 18446744073709549568,
    "site": "Berlin",
    "password": "correct horse",
    "call": {"port": "5061", "muted": true},
    "sites": [{"name": "Paris"}, {"name": "Oslo"}, {}]
})";

/* What the request calls for; members that are missing or wrong have a default. */
bool read(cJSON *request) {
    cJSON *call = ConfJsonGetObject(request, "call");
    const unsigned int port = ConfJsonGetUInt32(call, "port", 5060);  // a text is no number
    const bool muted = ConfJsonGetBool(call, "muted", false);
    const int volume = ConfJsonIsMember(call, "volume") ? ConfJsonGetInt(call, "volume", 50) : 50;
    printf("id %llu, port %u, %s, volume %d\n", ConfJsonGetUInt64(request, "id", 0), port,
           muted ? "muted" : "not muted", volume);

    std::string names;
    cJSON *site = nullptr;
    cJSON_ArrayForEach(site, ConfJsonGetArray(request, "sites")) {  // steps: an index would walk
        names += ConfJsonGetString(site, "name", "unnamed") + " ";
    }
    printf("%d sites: %s\n", ConfJsonGetArraySize(ConfJsonFindItem(request, "sites")),
           names.c_str());
    return port == 5060 && muted && volume == 50 && names == "Paris Oslo unnamed ";
}

/* The request as a log may show it: its password is overwritten. */
bool show(cJSON *request) {
    std::string text = kRequest;
    const std::string password = ConfJsonGetString(request, "password", "");
    std::string masked = password;
    ConfJsonClearStr(masked);
    ConfJsonReplaceStr(text, password.c_str(), masked.c_str());
    printf("%s\n", text.c_str());
    return text.find("correct") == std::string::npos;
}

bool answer(cJSON *request) {
    const std::string site = ConfJsonGetString(request, "site", "");
    const ConfJsonItem items[] = {{CONF_JSON_ITEM_STRING, "site", {.string = site.c_str()}},
                                  {CONF_JSON_ITEM_NUMBER, "rate", {.number = 2.5}},
                                  {CONF_JSON_ITEM_BOOL, "accepted", {.boolean = true}}};
    std::string text;
    if (ConfJsonCreateAndPrintMultipleItems(text, items, 3) != 0) {
        return false;
    }
    printf("%s\n", text.c_str());

    // The same below a member of a larger answer.
    const Tree larger(cJSON_CreateObject());
    return ConfJsonAddMultipleItemsToSubObject(larger.get(), "result", items, 3) == 0 &&
           ConfJsonGetBool(ConfJsonGetObject(larger.get(), "result"), "accepted", false);
}

}  // namespace

int main() {
    ConfLogInit();  // "tamoctl log" tells which members had to be defaults
    const Tree request(ConfJsonParse(kRequest));
    bool good = read(request.get());
    good = show(request.get()) && good;
    good = answer(request.get()) && good;
    return good ? 0 : 1;
}
