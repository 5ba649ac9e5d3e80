/* What a getter costs beside the cJSON calls that it stands for, made by a program of its own, and how
 * the ways through an array grow with it. */
#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "bench/take_turns.h"
#include "include/conf_json.h"

namespace {

constexpr double kLimit = 1.1;

/* A request as modules exchange them; the getters read the middle of it. */
constexpr char kRequest[] =
    R"({"id": 4711, "method": "join", "site": "Berlin", "address": "192.0.2.7", "number": 5061,
        "text": "meeting-room-4@conference.example.com", "bool": true, "object": {"a": 1},
        "array": [1, 2, 3], "priority": 3, "bandwidth": 4096, "codec": "H.265"})";

cJSON *root;
volatile uint64_t sink; /* keeps the results */

void keep(uint64_t value) {
    sink = value;
}

/* The bare calls stand in functions too, as in a program that has them at several places. */
const cJSON *member(const char *key) {
    if (root == nullptr || !cJSON_IsObject(root)) {
        return nullptr;
    }
    return cJSON_GetObjectItemCaseSensitive(root, key);
}

__attribute__((noinline)) uint64_t bareInt() {
    const cJSON *item = member("number");
    if (!cJSON_IsNumber(item) || item->valuedouble < -2147483648.0 ||
        item->valuedouble > 2147483647.0) {
        return 7;
    }
    return static_cast<uint64_t>(static_cast<int>(item->valuedouble));
}

__attribute__((noinline)) uint64_t bareUInt64() {
    const cJSON *item = member("number");
    if (!cJSON_IsNumber(item) || item->valuedouble < 0 || item->valuedouble >= 0x1p64) {
        return 7;
    }
    return static_cast<uint64_t>(item->valuedouble);
}

__attribute__((noinline)) uint64_t bareBool() {
    const cJSON *item = member("bool");
    return !cJSON_IsBool(item) || cJSON_IsTrue(item);
}

__attribute__((noinline)) uint64_t bareString() {
    const cJSON *item = member("text");
    const std::string text = cJSON_IsString(item) ? item->valuestring : "";
    return text.size();
}

__attribute__((noinline)) uint64_t bareObject() {
    const cJSON *item = member("object");
    return cJSON_IsObject(item) ? reinterpret_cast<uintptr_t>(item) : 0;
}

template <auto bare, typename Getter>
void measure(const char *name, Getter getter) {
    bench::compare(
        {.title = "A request of twelve members", .runs = 2000, .rounds = 200},
        {{"cJSON's own calls", 0, [=] { keep(bare()); }}, {name, kLimit, [=] { keep(getter()); }}});
}

/* By index every element is walked to from the first one, in cJSON as here. */
void measureArrays() {
    std::printf("ns per element of an array %22s %12s\n", "ConfJsonGetArrayItem", "ArrayForEach");
    for (const unsigned int size : {100U, 1000U, 10000U}) {
        std::string text = "[0";
        for (unsigned int at = 1; at < size; at++) {
            text += ",0";
        }
        cJSON *array = ConfJsonParse((text + "]").c_str());
        bench::Row indexed = {"", 0, [=] {
                                  for (unsigned int at = 0; at < size; at++) {
                                      keep(ConfJsonGetArrayItem(array, at)->type != 0);
                                  }
                              }};
        bench::Row stepped = {"", 0, [=] {
                                  const cJSON *item = nullptr;
                                  cJSON_ArrayForEach(item, array) keep(item->type != 0);
                              }};
        bench::takeTurn(indexed, {.title = ""});
        bench::takeTurn(stepped, {.title = "", .runs = 20});
        std::printf("  %6u elements %32.1f %12.2f\n", size,
                    bench::percentile(indexed.nanoseconds, 0.5) / size,
                    bench::percentile(stepped.nanoseconds, 0.5) / size);
        cJSON_Delete(array);
    }
}

}  // namespace

int main() {
    root = ConfJsonParse(kRequest);
    measure<bareInt>("ConfJsonGetInt",
                     [] { return static_cast<uint64_t>(ConfJsonGetInt(root, "number", 7)); });
    measure<bareUInt64>("ConfJsonGetUInt64",
                        [] { return uint64_t{ConfJsonGetUInt64(root, "number", 7)}; });
    measure<bareBool>("ConfJsonGetBool",
                      [] { return uint64_t{ConfJsonGetBool(root, "bool", true)}; });
    measure<bareString>("ConfJsonGetString",
                        [] { return uint64_t{ConfJsonGetString(root, "text", "").size()}; });
    measure<bareObject>("ConfJsonGetObject", [] {
        return uint64_t{reinterpret_cast<uintptr_t>(ConfJsonGetObject(root, "object"))};
    });
    measureArrays();
    cJSON_Delete(root);
    return bench::finish();
}
